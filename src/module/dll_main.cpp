// Entry function of wisock.dll: the extension-module frame and the module heap.
#include "module/module.h"
#include "wicomm/wi_comm.h"

HANDLE g_hModuleHeap = NULL;
HINSTANCE g_hModuleInstance = NULL;
AFX_EXTENSION_MODULE g_extensionModule = {FALSE, NULL, NULL, NULL, NULL};

namespace {

const SIZE_T kModuleHeapInitialSize = 0x100000;

BOOL OnProcessAttach(HINSTANCE hInstance)
{
    if (!AfxInitExtensionModule(g_extensionModule, hInstance))
        return FALSE;
    new CDynLinkLibrary(g_extensionModule, FALSE);
    g_hModuleInstance = hInstance;
    if (g_hModuleHeap == NULL)
        g_hModuleHeap = HeapCreate(0, kModuleHeapInitialSize, 0);
    return TRUE;
}

BOOL OnProcessDetach()
{
    CWiComm::Cleanup();
    // Also deletes the CDynLinkLibrary object made at attach.
    AfxTermExtensionModule(g_extensionModule, FALSE);
    if (g_hModuleHeap != NULL) {
        HeapDestroy(g_hModuleHeap);
        g_hModuleHeap = NULL;
    }
    return TRUE;
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD dwReason, LPVOID)
{
    switch (dwReason) {
    case DLL_PROCESS_ATTACH:
        return OnProcessAttach(hInstance);
    case DLL_PROCESS_DETACH:
        return OnProcessDetach();
    default:
        return TRUE;
    }
}
