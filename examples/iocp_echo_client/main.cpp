// An echo client on the completion-port stack: it connects to 127.0.0.1:P,
// sends N messages one after the other and checks that each comes back
// byte for byte before it sends the next.
//
//   example_iocp_echo_client [--tls] --port P [--messages N] [--size BYTES]
//
// Exit code 0: every echo was exact. 1: something failed (the reason is printed).
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "factory/overlapped_socket_factory.h"

typedef std::shared_ptr<COverlappedSocket> SocketPtr;

// Message i: nSize bytes of a pattern that differs from message to message.
static std::string MakeMessage(int i, int nSize) {
    std::string message(nSize, '\0');
    for (int k = 0; k < nSize; ++k)
        message[k] = static_cast<char>('A' + (i + k) % 26);
    return message;
}

class CEchoClient : public ISocketNotifyObject {
public:
    CEchoClient(int nMessages, int nSize)
        : m_nMessages(nMessages), m_nSize(nSize), m_hDone(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~CEchoClient() override { CloseHandle(m_hDone); }

    void OnConnect(int nErrorCode, SocketPtr spSocket) override {
        if (nErrorCode != 0)
            return Finish("connect failed, error " + std::to_string(nErrorCode));   // OnClose follows
        SendNext(spSocket);                           // send only after OnConnect(0)
    }
    void OnReceive(int, const void* pData, int nLength, SocketPtr spSocket) override {
        // One message is in flight, but its echo may come in several pieces.
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        m_strReceived.append(static_cast<const char*>(pData), nLength);
        if (m_strReceived.size() < m_strExpected.size())
            return;
        if (m_strReceived != m_strExpected)
            return Finish("echo of message " + std::to_string(m_nEchoed) + " differs");
        if (++m_nEchoed == m_nMessages)
            return Finish("");
        SendNext(spSocket);
    }
    void OnClose(int, SocketPtr) override { Finish("the server closed the connection"); }
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override {}

    bool Wait(DWORD ms) { return WaitForSingleObject(m_hDone, ms) == WAIT_OBJECT_0; }
    std::string Failure() { std::lock_guard<std::recursive_mutex> lock(m_mutex); return m_strFailure; }
    int Echoed() const { return m_nEchoed; }

private:
    void SendNext(const SocketPtr& spSocket) {
        m_strExpected = MakeMessage(m_nEchoed, m_nSize);
        m_strReceived.clear();
        spSocket->Send(m_strExpected.data(), (int)m_strExpected.size());
    }
    // The first outcome counts; an empty text is success.
    void Finish(const std::string& strFailure) {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (WaitForSingleObject(m_hDone, 0) == WAIT_OBJECT_0)
            return;
        m_strFailure = strFailure;
        SetEvent(m_hDone);
    }

    const int m_nMessages, m_nSize;
    HANDLE m_hDone;
    std::recursive_mutex m_mutex;
    std::string m_strExpected, m_strReceived, m_strFailure;
    int m_nEchoed = 0;
};

int main(int argc, char** argv) {
    bool bTls = false;
    unsigned int nPort = 0;
    int nMessages = 20, nSize = 5000;                 // 5000 bytes: more than one 4096-byte record
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--tls") == 0) bTls = true;
        else if (strcmp(argv[i], "--port") == 0 && i + 1 < argc) nPort = (unsigned)atoi(argv[++i]);
        else if (strcmp(argv[i], "--messages") == 0 && i + 1 < argc) nMessages = atoi(argv[++i]);
        else if (strcmp(argv[i], "--size") == 0 && i + 1 < argc) nSize = atoi(argv[++i]);
        else { fprintf(stderr, "unknown argument %s\n", argv[i]); return 1; }
    }
    if (nPort == 0 || nMessages < 1 || nSize < 1) { fprintf(stderr, "usage: see the top of main.cpp\n"); return 1; }

    // With --tls the client checks the server's certificate against the CA of
    // SEALKIT_CA (else the Windows ROOT store) and against 127.0.0.1, the
    // address it connects to (scripts/lib/demo-pki.sh makes a CA and a
    // server certificate for trying it out).
    // The factory reads the SEALKIT_* settings now, so they go first.
    auto spFactory = COverlappedSocketFactory::CreateObject(
        bTls ? COverlappedSocketFactory::KIND_SSL : COverlappedSocketFactory::KIND_PLAIN, 0);
    if (!spFactory) { fprintf(stderr, "CreateObject failed\n"); return 1; }

    auto spClient = std::make_shared<CEchoClient>(nMessages, nSize);
    SocketPtr spSocket = spFactory->CreateSocket(spClient, 0, nullptr);   // any local port
    if (!spSocket || !spSocket->Connect(L"127.0.0.1", nPort)) {
        fprintf(stderr, "connect failed at once, error %d\n", COverlappedSocket::GetLastError());
        spFactory->Destory();
        return 1;
    }
    bool bFinished = spClient->Wait(20000);
    spSocket->Close();                                // OnClose(0) runs here; our Finish ignores it
    spFactory->Destory();

    std::string strFailure = bFinished ? spClient->Failure() : "no outcome within 20 s";
    if (!strFailure.empty()) {
        printf("FAILED after %d of %d echoes: %s\n", spClient->Echoed(), nMessages, strFailure.c_str());
        return 1;
    }
    printf("%d messages of %d bytes echoed exactly%s\n", nMessages, nSize, bTls ? " over TLS" : "");
    return 0;
}
