// The same echo server on wisock: a COverlappedSocketFactory, a listen socket
// with a pool of accepts, and a notify object that sends back what arrives.
// Usage: bench_wisock_server --port P [--workers N] [--seconds T] [--mode plain|tls]
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <memory>

#include "bench_args.h"
#include "factory/overlapped_socket_factory.h"
#include "overlapped/overlapped_socket.h"
#include "overlapped/socket_notify.h"

namespace {

typedef std::shared_ptr<COverlappedSocket> SocketPtr;

class Echo : public ISocketNotifyObject {
public:
    void OnConnect(int, SocketPtr) override {}
    void OnClose(int, SocketPtr) override {}
    void OnReceive(int, const void* pData, int nLength, SocketPtr s) override { s->Send(pData, nLength, 0); }
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override {}
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
    SocketPtr listen =
        factory->CreateSocket(echo, static_cast<unsigned>(args.Number("--port", 0)), L"127.0.0.1");
    if (!listen || !listen->Listen(SOMAXCONN)) {
        std::fprintf(stderr, "bench_wisock_server: listen failed: %d\n", COverlappedSocket::GetLastError());
        factory->Destory();
        return 1;
    }
    factory->CreateSocket(echo, listen, 64);
    CString address;
    unsigned int port = 0;
    listen->GetSockName(address, port);
    std::printf("listening on %u\n", port);
    std::fflush(stdout);
    Sleep(static_cast<DWORD>(args.Number("--seconds", 10) * 1000));
    listen.reset();
    factory->Destory();
    return 0;
}
