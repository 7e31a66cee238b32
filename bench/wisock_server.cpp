// The same echo server on wisock: a COverlappedSocketFactory, a listen socket
// with a pool of accepts, and a notify object that sends back what arrives.
// With --idle N it also reports what N idle connections cost: once N have
// connected (TLS: finished their handshake), the growth of the module heap,
// of all heaps and of the process's private bytes, per connection.
// Usage: bench_wisock_server --port P [--workers N] [--seconds T] [--mode plain|tls] [--idle N]
#include <winsock2.h>
#include <windows.h>
#include <psapi.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <vector>

#include "bench_args.h"
#include "factory/overlapped_socket_factory.h"
#include "module/module.h"
#include "overlapped/overlapped_socket.h"
#include "overlapped/socket_notify.h"

namespace {

typedef std::shared_ptr<COverlappedSocket> SocketPtr;

class Echo : public ISocketNotifyObject {
public:
    std::atomic<long> connected{0};
    long idleTarget = 0;
    HANDLE idleReached = CreateEventW(NULL, TRUE, FALSE, NULL);

    void OnConnect(int nErrorCode, SocketPtr) override
    {
        if (nErrorCode == 0 && idleTarget > 0 && ++connected == idleTarget)
            SetEvent(idleReached);
    }
    void OnClose(int, SocketPtr) override {}
    void OnReceive(int, const void* pData, int nLength, SocketPtr s) override { s->Send(pData, nLength, 0); }
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override {}
};

long long BusyBytes(HANDLE hHeap)
{
    long long bytes = 0;
    PROCESS_HEAP_ENTRY entry = {};
    HeapLock(hHeap);
    while (HeapWalk(hHeap, &entry))
        if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY)
            bytes += entry.cbData;
    HeapUnlock(hHeap);
    return bytes;
}

struct Memory {
    long long module, heaps, privateBytes;
    static Memory Now()
    {
        Memory m{BusyBytes(g_hModuleHeap), 0, 0};
        std::vector<HANDLE> heaps(GetProcessHeaps(0, NULL) + 16);
        heaps.resize(GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()));
        for (HANDLE h : heaps)
            m.heaps += BusyBytes(h);
        PROCESS_MEMORY_COUNTERS counters = {};
        counters.cb = sizeof(counters);
        K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));   // kernel32, no psapi.lib
        m.privateBytes = static_cast<long long>(counters.PagefileUsage);   // the commit charge
        return m;
    }
};

}  // namespace

int main(int argc, char** argv)
{
    BenchArgs args{argc, argv};
    std::string mode = args.Text("--mode", "plain");
    int kind = mode == "tls" ? COverlappedSocketFactory::KIND_SSL : COverlappedSocketFactory::KIND_PLAIN;
    auto factory = COverlappedSocketFactory::CreateObject(kind, static_cast<int>(args.Number("--workers", 4)));
    if (!factory) {
        std::fprintf(stderr, "bench_wisock_server: CreateObject(%d) failed\n", kind);
        return 2;
    }
    auto echo = std::make_shared<Echo>();
    echo->idleTarget = args.Number("--idle", 0);
    SocketPtr listen =
        factory->CreateSocket(echo, static_cast<unsigned>(args.Number("--port", 0)), L"127.0.0.1");
    if (!listen || !listen->Listen(SOMAXCONN)) {
        std::fprintf(stderr, "bench_wisock_server: listen failed: %d\n", COverlappedSocket::GetLastError());
        factory->Destory();
        return 1;
    }
    factory->CreateSocket(echo, listen, 64);
    const Memory before = Memory::Now();
    CString address;
    unsigned int port = 0;
    listen->GetSockName(address, port);
    std::printf("listening on %u\n", port);
    std::fflush(stdout);
    const DWORD dwSeconds = static_cast<DWORD>(args.Number("--seconds", 10));
    if (echo->idleTarget > 0 && WaitForSingleObject(echo->idleReached, dwSeconds * 1000) == WAIT_OBJECT_0) {
        const Memory after = Memory::Now();
        const double n = static_cast<double>(echo->idleTarget);
        std::printf("idle %ld module_heap_bytes %.0f heap_bytes %.0f private_bytes %.0f\n", echo->idleTarget,
                    (after.module - before.module) / n, (after.heaps - before.heaps) / n,
                    (after.privateBytes - before.privateBytes) / n);
        std::fflush(stdout);
    }
    Sleep(dwSeconds * 1000);
    listen.reset();
    factory->Destory();
    PrintProcessCpu();
    return 0;
}
