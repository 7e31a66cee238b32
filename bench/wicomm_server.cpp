// The same message-window echo server on wisock: a CWiComm listener on this
// thread's window, and a notify object that writes back what it reads.
// Usage: bench_wicomm_server --port P [--seconds T]
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <string>

#include "bench_args.h"
#include "wicomm/wi_tcp.h"

namespace {

class Echo : public ICommNotifyObject {
public:
    // Plain reads deliver what arrived (up to the 1024-byte read size the
    // stack sets after OnOpen): nothing to set.
    void OnOpen(std::shared_ptr<CWiComm>) override {}
    void OnClose(std::shared_ptr<CWiComm> spComm) override { spComm->Close(); }
    void OnReadComplete(const void* pData, int nLength, std::shared_ptr<CWiComm> spComm) override
    {
        spComm->Write(pData, static_cast<unsigned long>(nLength));
    }
    void OnWriteComplete(int, std::shared_ptr<CWiComm>) override {}
    void OnError(int, int, std::shared_ptr<CWiComm>) override {}
};

// The listen form needs a port: one that is free now.
unsigned short FreePort()
{
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int len = sizeof(a);
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    closesocket(s);
    return ntohs(a.sin_port);
}

}  // namespace

int main(int argc, char** argv)
{
    BenchArgs args{argc, argv};
    CWiComm::Startup();
    Echo echo;
    unsigned short port = static_cast<unsigned short>(args.Number("--port", 0));
    if (port == 0)
        port = FreePort();
    std::string option = "S:" + std::to_string(port);
    auto listener = CWiComm::NewObject(CWiComm::CLASSID_WITCP, option.c_str(), &echo, -1);
    if (!listener) {
        std::fprintf(stderr, "bench_wicomm_server: %s failed\n", option.c_str());
        return 1;
    }
    std::printf("listening on %u\n", port);
    std::fflush(stdout);
    SetTimer(NULL, 0, static_cast<UINT>(args.Number("--seconds", 10) * 1000), NULL);
    MSG msg;
    while (GetMessageW(&msg, NULL, 0, 0) > 0 && msg.message != WM_TIMER)
        DispatchMessageW(&msg);
    listener->Close();
    listener.reset();
    CWiComm::Cleanup();
    PrintProcessCpu();
    return 0;
}
