// Receive time-outs on the completion-port stack, in one process: a server
// and a client on 127.0.0.1. The client stays silent; the server's accepted
// socket asks to be told after 200 ms of silence.
//
//   1st OnReceiveTimeout: return 400, so the watch goes on with a new value.
//   2nd OnReceiveTimeout: return 0, so the socket is no longer watched.
//   The connection stays open throughout: the client's "ping" still arrives.
//
// The factory's time-out thread looks once a second, so each report comes up
// to about a second late. The whole run takes about 3 seconds.
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <memory>

#include "factory/overlapped_socket_factory.h"

typedef std::shared_ptr<COverlappedSocket> SocketPtr;

static const ULONGLONG g_nStart = GetTickCount64();
static unsigned long Elapsed() { return (unsigned long)(GetTickCount64() - g_nStart); }

class CServer : public ISocketNotifyObject {
public:
    HANDLE m_hSecondReport = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE m_hPing = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> m_nReports{0};

    void OnConnect(int nErrorCode, SocketPtr spSocket) override {
        if (nErrorCode == 0)
            spSocket->SetReceiveTimeout(200);         // tell me after 200 ms without data
    }
    DWORD OnReceiveTimeout(SocketPtr spSocket) override {
        // Runs on the factory's one time-out thread; keep it short.
        int nReport = ++m_nReports;
        printf("%5lu ms  report %d, time-out was %lu ms\n", Elapsed(), nReport, spSocket->GetReceiveTimeout());
        if (nReport == 1)
            return 400;                               // re-arm: the next report after 400 ms more silence
        SetEvent(m_hSecondReport);
        return 0;                                     // stop watching (SetReceiveTimeout(0) would not)
    }
    void OnReceive(int, const void* pData, int nLength, SocketPtr) override {
        printf("%5lu ms  received \"%.*s\": the time-outs did not close the socket\n", Elapsed(), nLength,
               static_cast<const char*>(pData));
        SetEvent(m_hPing);
    }
    void OnClose(int, SocketPtr) override {}
    void OnSend(int, int, SocketPtr) override {}
    void OnDelete(COverlappedSocket*) override {}
};

// The client only connects; the main thread sends its one message.
class CClient : public ISocketNotifyObject {
public:
    HANDLE m_hConnected = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    void OnConnect(int nErrorCode, SocketPtr) override { if (nErrorCode == 0) SetEvent(m_hConnected); }
    void OnReceive(int, const void*, int, SocketPtr) override {}
    void OnClose(int, SocketPtr) override {}
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override {}
};

static int Fail(const char* pszWhat, const std::shared_ptr<COverlappedSocketFactory>& spFactory) {
    printf("FAILED: %s\n", pszWhat);
    spFactory->Destory();
    return 1;
}

int main() {
    auto spFactory = COverlappedSocketFactory::CreateObject(COverlappedSocketFactory::KIND_PLAIN, 1);
    if (!spFactory) return 1;
    auto spServer = std::make_shared<CServer>();
    auto spClient = std::make_shared<CClient>();

    SocketPtr spListen = spFactory->CreateSocket(spServer, 0, L"127.0.0.1");   // port 0: any free one
    if (!spListen || !spListen->Listen(4)) return Fail("listen", spFactory);
    spFactory->CreateSocket(spServer, spListen, 1);
    CString strAddress;
    unsigned int nPort = 0;
    spListen->GetSockName(strAddress, nPort);

    SocketPtr spSocket = spFactory->CreateSocket(spClient, 0, nullptr);
    if (!spSocket || !spSocket->Connect(L"127.0.0.1", nPort)) return Fail("connect", spFactory);
    if (WaitForSingleObject(spClient->m_hConnected, 5000) != WAIT_OBJECT_0) return Fail("no connection", spFactory);
    printf("%5lu ms  connected; the client says nothing\n", Elapsed());

    if (WaitForSingleObject(spServer->m_hSecondReport, 5000) != WAIT_OBJECT_0)
        return Fail("two time-out reports did not come", spFactory);

    // The watch has ended: a little more silence brings no third report.
    WaitForSingleObject(spServer->m_hPing, 1100);     // nothing sets it yet: just waits 1.1 s
    printf("%5lu ms  %d reports in all\n", Elapsed(), spServer->m_nReports.load());

    spSocket->Send("ping", 4);
    if (WaitForSingleObject(spServer->m_hPing, 5000) != WAIT_OBJECT_0) return Fail("ping did not arrive", spFactory);

    spFactory->Destory();
    int nReports = spServer->m_nReports.load();
    if (nReports != 2) {
        printf("FAILED: %d reports instead of 2\n", nReports);
        return 1;
    }
    printf("done\n");
    return 0;
}
