// The part of the MFC class library that wisock uses, in MFC's own names and
// signatures, so that the same sources build against real MFC. Include this
// instead of <afx.h>; the classes live in wisock.dll.
#ifndef WISOCK_MFC_AFX_H
#define WISOCK_MFC_AFX_H

#include <winsock2.h>
#include <windows.h>

#include "module/export.h"

#ifdef WISOCK_USE_SYSTEM_MFC
// Built as an MFC extension DLL (_AFXDLL, _AFXEXT) against Visual Studio's
// MFC: the classes come from the MFC runtime DLL (docs/building.md).
#include <afxwin.h>   // CObject, CString, CException, CDynLinkLibrary, AfxInitExtensionModule
#include <afxmt.h>    // CCriticalSection
#else
#ifndef AFXAPI
#define AFXAPI __stdcall
#endif
#ifndef AFX_EXT_CLASS
#define AFX_EXT_CLASS WISOCK_API
#endif

#include "mfc/cobject.h"
#include "mfc/cstring.h"
#include "mfc/cexception.h"
#include "mfc/ccriticalsection.h"
#include "mfc/extension_module.h"
#endif

#endif
