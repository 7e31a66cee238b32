// The part of the MFC class library that wisock uses, in MFC's own names and
// signatures, so that the same sources build against real MFC. Include this
// instead of <afx.h>; the classes live in wisock.dll.
#ifndef WISOCK_MFC_AFX_H
#define WISOCK_MFC_AFX_H

#include <winsock2.h>
#include <windows.h>

#include "module/export.h"

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
