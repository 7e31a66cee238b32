// Shared pieces of the TLS completion-port tests: a notify object that
// records every notification in order and can run a hook in each, and a
// fixture with a TLS factory, a listening socket and its accept pool.
#ifndef WISOCK_TESTS_TLS_OVERLAPPED_TLS_FIXTURE_H
#define WISOCK_TESTS_TLS_OVERLAPPED_TLS_FIXTURE_H

#include <winsock2.h>
#include <windows.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_pki.h"

#include "factory/overlapped_socket_factory.h"
#include "overlapped/overlapped_socket.h"
#include "support/wait.h"
#include "tls/overlapped_ssl.h"

typedef std::shared_ptr<COverlappedSocket> SocketPtr;

enum class Note { Connect, Close, Receive, Send, Delete };

struct Notification {
    Note kind;
    int error;
    const COverlappedSocket* socket;
    int length;
};

// Records notifications; hooks run inside the notification, on its thread.
class Recorder final : public ISocketNotifyObject {
public:
    std::function<void(int, SocketPtr)> onConnect;
    std::function<void(const void*, int, SocketPtr)> onReceive;
    std::function<void(int, SocketPtr)> onSend;
    std::function<void(int, SocketPtr)> onClose;

    void OnConnect(int nErrorCode, SocketPtr spSocket) override;
    void OnClose(int nErrorCode, SocketPtr spSocket) override;
    void OnReceive(int nErrorCode, const void* pData, int nLength, SocketPtr spSocket) override;
    void OnSend(int nErrorCode, int nLength, SocketPtr spSocket) override;
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket* pSocket) override;

    std::vector<Notification> Of(const COverlappedSocket* pSocket) const;
    std::vector<Note> KindsOf(const COverlappedSocket* pSocket) const;
    std::string Received(const COverlappedSocket* pSocket) const;
    size_t ReceivedSize(const COverlappedSocket* pSocket) const;
    SocketPtr FirstConnected() const;
    long Count(Note kind) const;
    // Every socket: exactly one OnClose, then OnDelete last (per lifetime of an address).
    ::testing::AssertionResult EachSocketClosedOnceThenDeleted() const;

    EventCounter connects, closes, deletes, receivedBytes, sendNotes;

private:
    void Add(Note kind, int error, const COverlappedSocket* pSocket, int length);

    mutable std::mutex m_mutex;
    std::vector<Notification> m_notes;
    std::map<const COverlappedSocket*, std::string> m_received;
    std::vector<SocketPtr> m_connected;
};


std::string Pattern(size_t size, unsigned seed);
unsigned short LocalPort(const SocketPtr& spSocket);

// A TLS factory with a listener on 127.0.0.1 and a pool of accepts.
class TlsServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { UseTestCertificates(); }
    void SetUp() override;
    void TearDown() override;

    // A TLS client socket of the same factory connecting to the listener.
    SocketPtr ConnectClient(const std::shared_ptr<Recorder>& spClient);

    // The listener's address, which clients connect to; set before SetUp.
    const wchar_t* m_pszAddress = L"127.0.0.1";

    std::shared_ptr<COverlappedSocketFactory> m_spFactory;
    std::shared_ptr<Recorder> m_spServer = std::make_shared<Recorder>();
    std::shared_ptr<Recorder> m_spClient = std::make_shared<Recorder>();
    SocketPtr m_spListen;
    std::vector<SocketPtr> m_pool;
    unsigned short m_nPort = 0;
};

#endif
