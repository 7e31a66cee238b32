// An application outside the wisock tree, built against an install with its
// own toolchain: what crosses the DLL boundary must work in the application's
// ABI. No NOMINMAX here: the installed headers must not need it.
#include <cstdio>
#include <stdexcept>
#include <string>

#include "factory/overlapped_socket_factory.h"
#include "mfc/afx.h"
#include "module/module.h"
#include "wicomm/wi_comm.h"
#include "wicomm/wi_sock_addr.h"

namespace {

int g_failures = 0;
void Check(bool ok, const char* what)
{
    if (!ok) {
        std::printf("FAIL: %s\n", what);
        ++g_failures;
    }
}

long BusyBlocks(HANDLE hHeap)
{
    long n = 0;
    PROCESS_HEAP_ENTRY entry = {};
    HeapLock(hHeap);
    while (HeapWalk(hHeap, &entry))
        if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY)
            ++n;
    HeapUnlock(hHeap);
    return n;
}

// A listener's OnOpen runs inside NewObject; its exception unwinds through
// the DLL's frames and is caught here by type.
class Throwing : public ICommNotifyObject {
public:
    void OnOpen(std::shared_ptr<CWiComm>) override { throw std::runtime_error("from OnOpen"); }
    void OnClose(std::shared_ptr<CWiComm>) override {}
    void OnReadComplete(const void*, int, std::shared_ptr<CWiComm>) override {}
    void OnWriteComplete(int, std::shared_ptr<CWiComm>) override {}
    void OnError(int, int, std::shared_ptr<CWiComm>) override {}
};

class Quiet : public ISocketNotifyObject {
public:
    void OnConnect(int, std::shared_ptr<COverlappedSocket>) override {}
    void OnClose(int, std::shared_ptr<COverlappedSocket>) override {}
    void OnReceive(int, const void*, int, std::shared_ptr<COverlappedSocket>) override {}
    void OnSend(int, int, std::shared_ptr<COverlappedSocket>) override {}
    DWORD OnReceiveTimeout(std::shared_ptr<COverlappedSocket>) override { return 0; }
    void OnDelete(COverlappedSocket*) override {}
};

// A port of 127.0.0.1 that nothing listens on.
unsigned short FreePort()
{
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int n = sizeof(a);
    bind(s, (sockaddr*)&a, sizeof(a));
    getsockname(s, (sockaddr*)&a, &n);
    closesocket(s);
    return ntohs(a.sin_port);
}

}  // namespace

int main()
{
    CWiSockAddr addr(L"127.0.0.1", 80);
    CString text;
    Check(addr.ToString(text) && text == L"127.0.0.1", "address text");

    // The globals looked up by name are the ones the headers name.
    HMODULE hWisock = GetModuleHandleW(L"wisock.dll");
    Check(GetProcAddress(hWisock, "g_hModuleHeap") == (FARPROC)&g_hModuleHeap, "g_hModuleHeap by name");
    Check(GetProcAddress(hWisock, "g_hModuleInstance") == (FARPROC)&g_hModuleInstance, "g_hModuleInstance by name");

    // Objects made in the DLL, released here; the module heap is back after.
    const long before = BusyBlocks(g_hModuleHeap);
    {
        std::shared_ptr<COverlappedSocketFactory> spFactory = COverlappedSocketFactory::CreateObject(0, 2);
        Check(spFactory != nullptr, "CreateObject");
        if (spFactory) {
            std::shared_ptr<COverlappedSocket> spSocket = spFactory->CreateSocket(std::make_shared<Quiet>(), 0, L"127.0.0.1");
            Check(spSocket && spSocket->Listen() != 0, "a listening socket");
            spFactory->Destory();
        }
    }
    Check(BusyBlocks(g_hModuleHeap) == before, "module heap back after Destory");

    Throwing throwing;
    Check(CWiComm::Startup() == 1, "Startup");
    bool caught = false;
    try {
        const std::string listen = "S:" + std::to_string(FreePort());
        CWiComm::NewObject(CWiComm::CLASSID_WITCP, listen.c_str(), &throwing, -1);
    } catch (const std::runtime_error& e) {
        caught = std::string(e.what()) == "from OnOpen";
    }
    Check(caught, "an exception of OnOpen caught by type through NewObject");
    Check(CWiComm::Cleanup() == 1, "Cleanup");

    std::printf(g_failures == 0 ? "outside application: ok\n" : "outside application: %d failures\n", g_failures);
    return g_failures == 0 ? 0 : 1;
}
