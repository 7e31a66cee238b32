// The extension-module frame: a DLL that MFC applications load registers
// itself with AfxInitExtensionModule and a CDynLinkLibrary object, and
// unregisters with AfxTermExtensionModule.
#ifndef WISOCK_MFC_EXTENSION_MODULE_H
#define WISOCK_MFC_EXTENSION_MODULE_H

#include <winsock2.h>
#include <windows.h>

#include "mfc/cobject.h"

struct AFX_EXTENSION_MODULE {
    BOOL bInitialized;
    HMODULE hModule;
    HMODULE hResource;
    CRuntimeClass* pFirstSharedClass;
    void* pFirstSharedFactory;
};

class WISOCK_API CDynLinkLibrary : public CObject {
    DECLARE_DYNAMIC(CDynLinkLibrary)
public:
    explicit CDynLinkLibrary(AFX_EXTENSION_MODULE& state, BOOL bSystem = FALSE);
    virtual ~CDynLinkLibrary();

    HMODULE m_hModule;
    HMODULE m_hResource;
    BOOL m_bSystem;
    CDynLinkLibrary* m_pNextDLL;

    // The libraries that are registered now, newest first.
    static CDynLinkLibrary* GetFirst();
};

WISOCK_API BOOL AFXAPI AfxInitExtensionModule(AFX_EXTENSION_MODULE& state, HMODULE hModule);
WISOCK_API void AFXAPI AfxTermExtensionModule(AFX_EXTENSION_MODULE& state, BOOL bAll = FALSE);

#endif
