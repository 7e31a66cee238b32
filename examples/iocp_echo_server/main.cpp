// An echo server on the completion-port stack: it listens on 127.0.0.1 with a
// pool of accepts and sends every byte it receives back to its sender.
//
//   example_iocp_echo_server [--tls] [--port P] [--seconds S] [--connections N]
//
// --port 0 (the default) lets the system choose; the ready line tells the port:
//   "listening on 127.0.0.1:P". The server stops after S seconds (default 30)
//   or once N connections (default: no limit) have come and gone.
// With --tls and no SEALKIT_CERT set, Sealkit gives the server an ephemeral
// self-signed certificate for "localhost" (see docs/sealkit.md).
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>

#include "factory/overlapped_socket_factory.h"

typedef std::shared_ptr<COverlappedSocket> SocketPtr;

class CEchoServer : public ISocketNotifyObject {
public:
    explicit CEchoServer(long nConnectionLimit)
        : m_nLimit(nConnectionLimit), m_hLimitReached(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~CEchoServer() override { CloseHandle(m_hLimitReached); }

    void OnConnect(int nErrorCode, SocketPtr spSocket) override {
        if (nErrorCode != 0)
            return;                                   // a failed accept; the pool replaces it
        std::lock_guard<std::mutex> lock(m_mutex);
        m_setConnected.insert(spSocket.get());        // a key only: the factory holds the socket
    }
    void OnReceive(int, const void* pData, int nLength, SocketPtr spSocket) override {
        spSocket->Send(pData, nLength);               // Send copies: pData dies with this call
        m_nBytes += nLength;
    }
    void OnClose(int, SocketPtr spSocket) override {
        // Accepts that never saw a client end with OnClose too: count real connections only.
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_setConnected.erase(spSocket.get()) == 0)
            return;
        if (++m_nServed == m_nLimit)
            SetEvent(m_hLimitReached);
    }
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override {}

    HANDLE LimitReached() const { return m_hLimitReached; }
    long Served() const { return m_nServed; }
    long long Bytes() const { return m_nBytes; }

private:
    const long m_nLimit;
    HANDLE m_hLimitReached;
    std::mutex m_mutex;
    std::set<COverlappedSocket*> m_setConnected;
    std::atomic<long> m_nServed{0};
    std::atomic<long long> m_nBytes{0};
};

int main(int argc, char** argv) {
    bool bTls = false;
    unsigned int nPort = 0;
    DWORD nSeconds = 30;
    long nConnections = -1;                           // -1: no limit
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--tls") == 0) bTls = true;
        else if (strcmp(argv[i], "--port") == 0 && i + 1 < argc) nPort = (unsigned)atoi(argv[++i]);
        else if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) nSeconds = (DWORD)atoi(argv[++i]);
        else if (strcmp(argv[i], "--connections") == 0 && i + 1 < argc) nConnections = atol(argv[++i]);
        else { fprintf(stderr, "unknown argument %s\n", argv[i]); return 2; }
    }

    // Any SEALKIT_* settings must be in place before CreateObject of a TLS factory.
    auto spFactory = COverlappedSocketFactory::CreateObject(
        bTls ? COverlappedSocketFactory::KIND_SSL : COverlappedSocketFactory::KIND_PLAIN, 0);
    if (!spFactory) { fprintf(stderr, "CreateObject failed\n"); return 1; }

    // The listen socket and its accepts share one notify object: replacement
    // accepts take the listen socket's.
    auto spServer = std::make_shared<CEchoServer>(nConnections);
    SocketPtr spListen = spFactory->CreateSocket(spServer, nPort, L"127.0.0.1");
    if (!spListen || !spListen->Listen(64)) {
        fprintf(stderr, "listen failed, error %d\n", COverlappedSocket::GetLastError());
        spFactory->Destory();
        return 1;
    }
    auto vecAccepts = spFactory->CreateSocket(spServer, spListen, 16);   // the pool keeps 16 waiting
    vecAccepts.clear();                               // the factory holds them; we needn't

    CString strAddress;
    unsigned int nBoundPort = 0;
    spListen->GetSockName(strAddress, nBoundPort);    // the port the system chose for --port 0
    printf("listening on 127.0.0.1:%u%s\n", nBoundPort, bTls ? " (TLS)" : "");
    fflush(stdout);                                   // the ready line must leave now, even into a pipe

    WaitForSingleObject(spServer->LimitReached(), nSeconds * 1000);

    // Destory closes the listen socket, the accepts and any open connection,
    // and ends the threads; call it from a thread of your own.
    spFactory->Destory();
    printf("served %ld connection(s), echoed %lld bytes\n", spServer->Served(), spServer->Bytes());
    return 0;
}
