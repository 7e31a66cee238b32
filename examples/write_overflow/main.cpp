// The write queue of the message-window stack: what happens when more waits
// than SetMaxSendBufferSize allows, and how SetUnpackingWhenWrite cuts writes.
// A plain CWiTcp server and client on this one window thread.
//
// Write only queues; the bytes leave when the window thread handles the
// socket's FD_WRITE. So several Writes made in one go, without pumping
// messages in between, all meet a queue that has not been sent yet:
//
//   mode 0: a Write is refused (result 0) while more than the limit waits.
//   mode 1: a Write over the limit drops what waits and queues the new data.
//   unpacking: one Write becomes blocks of 4096 bytes, each with its own OnWriteComplete.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <memory>
#include <string>

#include "wicomm/wi_tcp.h"

static const std::string kExpected =                  // what the server must receive, in order
    std::string(600, 'a') + std::string(600, 'b') +   // mode 0: 'c' was refused
    std::string(600, 'f') +                           // mode 1: 'd' and 'e' were dropped
    std::string(10000, 'g');                          // unpacking

class CWriter : public ICommNotifyObject {
public:
    std::string m_strWriteCompletes;                  // lengths of OnWriteComplete, in order

    void OnOpen(std::shared_ptr<CWiComm> spComm) override {
        m_spComm = spComm;                            // keep it: the server drives the next phases
        spComm->SetMaxSendBufferSize(1000);           // at most 1000 bytes may wait
        spComm->SetWriteOverFlowProcess(0);
        printf("mode 0: ");
        Write('a', 600);
        Write('b', 600);
        Write('c', 600);                              // 'c' meets 1200 waiting bytes
        printf("\n");
    }
    void Phase(int nReceived) {
        if (nReceived == 1200) {                      // 'a' and 'b' arrived; the queue is empty again
            m_spComm->SetWriteOverFlowProcess(1);
            printf("mode 1: ");
            Write('d', 600);
            Write('e', 600);
            Write('f', 600);                          // 'f' drops 'd' and 'e'
            printf("\n");
        } else if (nReceived == 1800) {
            m_spComm->SetMaxSendBufferSize(0);        // no limit
            m_spComm->SetUnpackingWhenWrite(1);
            printf("unpacking: ");
            Write('g', 10000);
            printf("\n");
        }
    }
    void OnWriteComplete(int nLength, std::shared_ptr<CWiComm>) override {
        m_strWriteCompletes += std::to_string(nLength) + " ";
    }
    void OnReadComplete(const void*, int, std::shared_ptr<CWiComm>) override {}
    void OnError(int, int, std::shared_ptr<CWiComm>) override {}
    void OnClose(std::shared_ptr<CWiComm>) override { m_spComm.reset(); }

private:
    void Write(char c, int nLength) {
        std::string strData(nLength, c);
        printf("Write(%d x '%c') = %d  ", nLength, c, m_spComm->Write(strData.data(), nLength));
    }
    std::shared_ptr<CWiComm> m_spComm;
};

// Collects what arrives and tells the writer how far it got.
class CReceiver : public ICommNotifyObject {
public:
    explicit CReceiver(CWriter& writer) : m_writer(writer) {}
    std::string m_strReceived;
    void OnReadComplete(const void* pData, int nLength, std::shared_ptr<CWiComm>) override {
        size_t nBefore = m_strReceived.size();
        m_strReceived.append(static_cast<const char*>(pData), nLength);
        for (int nMark : {1200, 1800})
            if (nBefore < (size_t)nMark && m_strReceived.size() >= (size_t)nMark) m_writer.Phase(nMark);
        if (m_strReceived.size() >= kExpected.size()) PostQuitMessage(0);
    }
    void OnOpen(std::shared_ptr<CWiComm>) override {}
    void OnWriteComplete(int, std::shared_ptr<CWiComm>) override {}
    void OnError(int, int, std::shared_ptr<CWiComm>) override {}
    void OnClose(std::shared_ptr<CWiComm> spComm) override { spComm->Close(); }

private:
    CWriter& m_writer;
};

int main() {
    if (!CWiComm::Startup()) return 1;
    CWriter writer;
    CReceiver receiver(writer);

    // A listener needs a port other than 0: take one the system calls free.
    SOCKET hProbe = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    int nLength = sizeof(addr);
    bind(hProbe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    getsockname(hProbe, reinterpret_cast<sockaddr*>(&addr), &nLength);
    closesocket(hProbe);
    std::string strPort = std::to_string(ntohs(addr.sin_port));

    auto spListen = CWiComm::NewObject(CWiComm::CLASSID_WITCP, ("S:" + strPort).c_str(), &receiver, -1);
    auto spClient = CWiComm::NewObject(CWiComm::CLASSID_WITCP, ("C:0,127.0.0.1," + strPort).c_str(), &writer, -1);
    if (!spListen || !spClient) return 1;

    SetTimer(nullptr, 0, 5000, nullptr);              // a bound on the whole run
    MSG msg;
    while (GetMessageW(&msg, nullptr, 0, 0) > 0 && !(msg.message == WM_TIMER && msg.hwnd == nullptr))
        DispatchMessageW(&msg);

    printf("OnWriteComplete lengths: %s\n", writer.m_strWriteCompletes.c_str());
    spClient->Close();                                // on the window thread: done when it returns
    spListen->Close();
    CWiComm::Cleanup();                               // also frees the accepted object the server still has
    bool bExact = receiver.m_strReceived == kExpected;
    printf("%s: the server received %lu bytes\n", bExact ? "as expected" : "FAILED",
           (unsigned long)receiver.m_strReceived.size());
    return bExact ? 0 : 1;
}
