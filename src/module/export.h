// WISOCK_API marks what wisock.dll exports: dllexport while the DLL is built,
// dllimport for applications that use it.
#ifndef WISOCK_MODULE_EXPORT_H
#define WISOCK_MODULE_EXPORT_H

#if defined(WISOCK_BUILDING_DLL)
#define WISOCK_API __declspec(dllexport)
#else
#define WISOCK_API __declspec(dllimport)
#endif

#endif
