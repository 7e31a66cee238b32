// OpenSSL is linked statically into this DLL, so the DLL tells it when a
// thread ends (its per-thread error state would stay behind otherwise).
#include "sealkit_link.h"

#include <winsock2.h>
#include <windows.h>

#include <openssl/crypto.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_THREAD_DETACH)
        OPENSSL_thread_stop();
    if (reason == DLL_PROCESS_DETACH && reserved == nullptr)
        sealkit::ReleaseLinkMethod();
    return TRUE;
}
