// Echo over the message-window stack: a CWiTcp listener that echoes, and a
// CWiTcp client that sends a few messages and checks each echo byte for byte.
//
//   example_wicomm_echo [--tls]
//
// Every object reports on the thread that made it, and that thread must pump
// messages. The server runs on a window thread of its own: a TLS handshake
// blocks its window thread until the handshake ends, so a client and a server
// sharing one thread would wait for each other (plain TCP alone could share).
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "wicomm/wi_tcp.h"

static const int kMessages = 10, kMessageSize = 3000;   // 3000: more than one 1024-byte delivery

static void PumpMessages() {
    MSG msg;
    while (GetMessageW(&msg, nullptr, 0, 0) > 0) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

// Serves one client: echoes, and stops its thread's loop when the client leaves.
class CEchoServer : public ICommNotifyObject {
public:
    void OnOpen(std::shared_ptr<CWiComm>) override {}  // the listener, then each accepted object
    void OnReadComplete(const void* pData, int nLength, std::shared_ptr<CWiComm> spComm) override {
        if (nLength > 0) spComm->Write(pData, nLength);  // copied into the object's queue
    }
    void OnClose(std::shared_ptr<CWiComm> spComm) override {
        spComm->Close();                              // after a peer's close: give back socket and window
        PostQuitMessage(0);
    }
    void OnWriteComplete(int, std::shared_ptr<CWiComm>) override {}
    void OnError(int, int, std::shared_ptr<CWiComm>) override {}
};

struct ServerThread { int nSSLMode; unsigned short nPort; HANDLE hReady; };

static DWORD WINAPI RunServer(void* pParam) {
    ServerThread* pThread = static_cast<ServerThread*>(pParam);
    CEchoServer server;
    // Listening needs a port other than 0: take one the system calls free.
    SOCKET hProbe = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    int nLength = sizeof(addr);
    bind(hProbe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    getsockname(hProbe, reinterpret_cast<sockaddr*>(&addr), &nLength);
    closesocket(hProbe);
    std::string strOption = "S:" + std::to_string(ntohs(addr.sin_port));
    auto spListen = CWiComm::NewObject(CWiComm::CLASSID_WITCP, strOption.c_str(), &server, pThread->nSSLMode);
    pThread->nPort = spListen ? ntohs(addr.sin_port) : 0;
    SetEvent(pThread->hReady);
    if (!spListen) return 1;
    PumpMessages();
    spListen->Close();                                // on its window thread: done when it returns
    return 0;
}

class CEchoClient : public ICommNotifyObject {
public:
    std::string m_strFailure = "the connection ended early";
    void OnOpen(std::shared_ptr<CWiComm> spComm) override {
        spComm->SetTimeouts(0, 5000, 0, 0);           // read time-out: give up after 5 s of silence
        SendNext(spComm);                             // a Write before OnOpen would be lost
    }
    void OnReadComplete(const void* pData, int nLength, std::shared_ptr<CWiComm> spComm) override {
        if (nLength == 0) return Finish("read time-out", spComm);
        m_strReceived.append(static_cast<const char*>(pData), nLength);
        if (m_strReceived.size() < m_strExpected.size()) return;
        if (m_strReceived != m_strExpected) return Finish("echo differs", spComm);
        if (++m_nEchoed == kMessages) return Finish("", spComm);
        SendNext(spComm);
    }
    void OnError(int nOperation, int nErrorCode, std::shared_ptr<CWiComm> spComm) override {
        Finish("error " + std::to_string(nErrorCode) + " in operation " + std::to_string(nOperation), spComm);
    }
    void OnClose(std::shared_ptr<CWiComm>) override { PostQuitMessage(0); }   // ends main's loop
    void OnWriteComplete(int, std::shared_ptr<CWiComm>) override {}
    int m_nEchoed = 0;

private:
    void SendNext(const std::shared_ptr<CWiComm>& spComm) {
        m_strExpected.assign(kMessageSize, static_cast<char>('a' + m_nEchoed));
        m_strReceived.clear();
        spComm->Write(m_strExpected.data(), m_strExpected.size());
    }
    void Finish(const std::string& strFailure, const std::shared_ptr<CWiComm>& spComm) {
        m_strFailure = strFailure;
        spComm->Close();                              // on the window thread: OnClose runs inside
    }
    std::string m_strExpected, m_strReceived;
};

int main(int argc, char** argv) {
    bool bTls = argc > 1 && strcmp(argv[1], "--tls") == 0;
    // With --tls the server shows SEALKIT_CERT, and the client checks it
    // against the CA of SEALKIT_CA (else the Windows ROOT store) and against
    // 127.0.0.1 (scripts/lib/demo-pki.sh makes such a CA and certificate).
    if (!CWiComm::Startup()) return 1;                // reads the SEALKIT_* settings: set them before

    // TLS: the listener takes the server side (1), the client the client side (0). -1: plain.
    ServerThread server = {bTls ? 1 : -1, 0, CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    DWORD nServerThread = 0;
    HANDLE hServer = CreateThread(nullptr, 0, RunServer, &server, 0, &nServerThread);
    WaitForSingleObject(server.hReady, 10000);
    CloseHandle(server.hReady);
    if (server.nPort == 0) { printf("FAILED: no listener\n"); return 1; }

    CEchoClient client;
    std::string strOption = "C:0,127.0.0.1," + std::to_string(server.nPort);
    auto spClient = CWiComm::NewObject(CWiComm::CLASSID_WITCP, strOption.c_str(), &client, bTls ? 0 : -1);
    if (spClient) {
        spClient->SetTimeouts(0, 5000, 0, 0);         // connect time-out
        PumpMessages();                               // this thread owns the client: pump until OnClose
    }
    if (!client.m_strFailure.empty())
        PostThreadMessageW(nServerThread, WM_QUIT, 0, 0);   // no client left to end the server
    bool bServerEnded = WaitForSingleObject(hServer, 5000) == WAIT_OBJECT_0;
    CloseHandle(hServer);
    CWiComm::Cleanup();

    if (!spClient || !client.m_strFailure.empty() || !bServerEnded) {
        printf("FAILED after %d echoes: %s%s\n", client.m_nEchoed, spClient ? client.m_strFailure.c_str() : "no client",
               bServerEnded ? "" : " (server thread did not end)");
        return 1;
    }
    printf("%d messages of %d bytes echoed exactly%s\n", kMessages, kMessageSize, bTls ? " over TLS" : "");
    return 0;
}
