// The module's globals: its private heap, its instance handle and its
// extension-module record. They are set up by the entry function.
#ifndef WISOCK_MODULE_MODULE_H
#define WISOCK_MODULE_MODULE_H

#include "mfc/afx.h"

// Both are looked up by name (GetProcAddress), so their names are C names in
// every ABI; the MSVC ABI would otherwise mangle them.
extern "C" {
// Private heap for every record buffer of the completion-port stack.
extern WISOCK_API HANDLE g_hModuleHeap;
// The instance handle of wisock.dll (owner of the notification windows).
extern WISOCK_API HINSTANCE g_hModuleInstance;
}
extern WISOCK_API AFX_EXTENSION_MODULE g_extensionModule;

#endif
