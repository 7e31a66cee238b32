// The order of notifications of a TLS socket: handshake success and failure,
// refused connect, a peer close that comes with data, and Close from inside
// every notification and from another thread during the handshake.
#include <atomic>
#include <thread>

#include "support/net.h"
#include "tls_fixture.h"

namespace {

// Reads protected state of a TLS socket for checks after Close.
struct SslState : COverlappedSSL {
    static const COverlappedSSL* Ssl(const SocketPtr& s) { return static_cast<const COverlappedSSL*>(s.get()); }
    static HSSL Handle(const SocketPtr& s) { return Ssl(s)->*(&SslState::m_hSSL); }
    static WSAEVENT Event(const SocketPtr& s) { return Ssl(s)->*(&SslState::m_hNetworkEvent); }
    static bool HoldsItself(const SocketPtr& s)
    {
        const COverlappedSSL* p = static_cast<const COverlappedSSL*>(s.get());
        return (p->*(&SslState::m_RecvInfo)).m_spSocket || (p->*(&SslState::m_SendPostInfo)).m_spSocket;
    }
    static size_t AcceptsOutstanding(const SocketPtr& s) { return (s.get()->*(&SslState::m_setAcceptSockets)).size(); }
};

}  // namespace

class TlsOrder : public TlsServerTest {};

TEST_F(TlsOrder, HandshakeSuccessGivesOnConnectBeforeTheFirstOnReceive)
{
    m_spServer->onConnect = [](int nError, SocketPtr s) {
        if (nError == 0)
            s->Send("hello", 5, 0);
    };
    m_spClient->onConnect = [](int, SocketPtr s) { EXPECT_EQ(1, s->IsConnected()) << "IsConnected in OnConnect"; };
    SocketPtr spSocket = ConnectClient(m_spClient);
    ASSERT_TRUE(spSocket);
    ASSERT_TRUE(m_spClient->receivedBytes.WaitAtLeast(5, "the server's greeting"));
    std::vector<Notification> notes = m_spClient->Of(spSocket.get());
    ASSERT_GE(notes.size(), 2u);
    EXPECT_EQ(Note::Connect, notes[0].kind);
    EXPECT_EQ(0, notes[0].error);
    EXPECT_EQ(Note::Receive, notes[1].kind);
    EXPECT_EQ("hello", m_spClient->Received(spSocket.get()));
    EXPECT_NE(0u, SslState::Handle(spSocket));
}

TEST_F(TlsOrder, HandshakeFailureGivesOnCloseWithoutOnConnectAndKeepsThePool)
{
    WinsockScope winsock;
    SOCKET raw = ConnectLoopback(m_nPort);
    ASSERT_NE(INVALID_SOCKET, raw);
    const char garbage[] = "GET / HTTP/1.0\r\n\r\n";
    ASSERT_TRUE(SendAll(raw, garbage, sizeof(garbage) - 1));
    ASSERT_TRUE(m_spServer->closes.WaitAtLeast(1, "OnClose of the failed handshake"));
    ASSERT_TRUE(m_spServer->deletes.WaitAtLeast(1, "the failed socket deleted"));
    closesocket(raw);
    EXPECT_EQ(0, m_spServer->Count(Note::Connect)) << "no OnConnect after a failed handshake";
    EXPECT_TRUE(m_spServer->EachSocketClosedOnceThenDeleted());
    EXPECT_TRUE(Eventually([&] { return SslState::AcceptsOutstanding(m_spListen) == 4; },
                           "the listen socket's pool back at 4 accepts"));
    // And the listener still serves TLS.
    SocketPtr spSocket = ConnectClient(m_spClient);
    EXPECT_TRUE(m_spClient->connects.WaitAtLeast(1, "a TLS client after the failure"));
}

TEST_F(TlsOrder, RefusedConnectGivesOnConnectAndOnCloseWithTheErrorAndNoTls)
{
    RefusingPort nobody;
    SocketPtr spSocket = m_spFactory->CreateSocket(m_spClient, 0, L"127.0.0.1");
    ASSERT_TRUE(spSocket);
    ASSERT_TRUE(spSocket->Connect(L"127.0.0.1", nobody.port));
    const COverlappedSocket* p = spSocket.get();
    spSocket.reset();
    ASSERT_TRUE(m_spClient->deletes.WaitAtLeast(1, "the refused socket deleted"));
    std::vector<Notification> notes = m_spClient->Of(p);
    ASSERT_EQ(3u, notes.size());
    EXPECT_EQ(Note::Connect, notes[0].kind);
    EXPECT_NE(0, notes[0].error);
    EXPECT_EQ(Note::Close, notes[1].kind);
    EXPECT_EQ(notes[0].error, notes[1].error);
    EXPECT_EQ(Note::Delete, notes[2].kind);
}

// The server writes and closes from inside OnSend: the client's data and the
// close come together, and the data is delivered before the close.
TEST_F(TlsOrder, PeerCloseWithDataDeliversTheDataThenCloses)
{
    const std::string data = Pattern(3000, 5);
    // The hooks outlive the test body (Destory aborts the pool's accepts with
    // OnConnect(995)), so they hold copies and act on success only.
    m_spServer->onConnect = [data](int nError, SocketPtr s) {
        if (nError == 0)
            s->Send(data.data(), static_cast<int>(data.size()), 0);
    };
    m_spServer->onSend = [](int, SocketPtr s) {
        if (s->GetWaitSendListPackSize() == 0)
            s->Close();
    };
    SocketPtr spSocket = ConnectClient(m_spClient);
    ASSERT_TRUE(spSocket);
    const COverlappedSocket* p = spSocket.get();
    spSocket.reset();
    ASSERT_TRUE(m_spClient->deletes.WaitAtLeast(1, "the client socket ended by its peer"));
    EXPECT_EQ((std::vector<Note>{Note::Connect, Note::Receive, Note::Close, Note::Delete}), m_spClient->KindsOf(p));
    long nDelivered = 0;
    for (const Notification& note : m_spClient->Of(p))
        if (note.kind == Note::Receive)
            nDelivered += note.length;
    EXPECT_EQ(static_cast<long>(data.size()), nDelivered) << "data of the closing peer lost";
    EXPECT_TRUE(m_spServer->deletes.WaitAtLeast(1, "the server socket closed in OnSend deleted"));
    EXPECT_TRUE(m_spServer->EachSocketClosedOnceThenDeleted());
}

TEST_F(TlsOrder, CloseFromInsideOnReceiveAndOnCloseReportsOnce)
{
    m_spServer->onReceive = [](const void*, int, SocketPtr s) { s->Close(); };
    m_spServer->onClose = [](int, SocketPtr s) {
        s->Close();   // the inner call does nothing
        EXPECT_EQ(0, s->IsConnected());
    };
    SocketPtr spSocket = ConnectClient(m_spClient);
    ASSERT_TRUE(m_spClient->connects.WaitAtLeast(1, "client OnConnect"));
    spSocket->Send("x", 1, 0);
    ASSERT_TRUE(m_spServer->deletes.WaitAtLeast(1, "the server socket closed in OnReceive deleted"));
    ASSERT_TRUE(m_spClient->closes.WaitAtLeast(1, "the client sees the close"));
    EXPECT_EQ(1, m_spServer->Count(Note::Close));
    EXPECT_TRUE(m_spServer->EachSocketClosedOnceThenDeleted());
    EXPECT_EQ(0, spSocket->IsConnected());
    EXPECT_EQ(0, spSocket->Send("y", 1, 0));
    EXPECT_EQ(WSAENOTSOCK, WSAGetLastError());
}

TEST_F(TlsOrder, CloseFromInsideOnConnectLeavesNoReferenceToItself)
{
    m_spServer->onConnect = [](int nError, SocketPtr s) {
        if (nError == 0)
            s->Close();
    };
    SocketPtr spSocket = ConnectClient(m_spClient);
    ASSERT_TRUE(spSocket);
    ASSERT_TRUE(m_spServer->deletes.WaitAtLeast(1, "the server socket closed in OnConnect deleted"));
    ASSERT_TRUE(m_spClient->closes.WaitAtLeast(1, "the client sees the close"));
    EXPECT_TRUE(m_spServer->EachSocketClosedOnceThenDeleted());
    // The close that reported OnClose may still be ending the connection on
    // its own thread; this Close then returns at once.
    spSocket->Close();
    EXPECT_TRUE(Eventually([&] { return SslState::Handle(spSocket) == 0; }, "TLS handle ended"));
    EXPECT_TRUE(Eventually([&] { return SslState::Event(spSocket) == nullptr; }, "network event closed"));
    EXPECT_TRUE(Eventually([&] { return !SslState::HoldsItself(spSocket); }, "no reference to itself"));
}

// A peer that closes TCP after the TLS close alert, and one that closes TCP
// alone (data may have been cut off): OnClose tells them apart.
TEST_F(TlsOrder, OnCloseTellsACleanTlsCloseFromATruncatedOne)
{
    std::atomic<int> lastError(-1);
    m_spServer->onClose = [&](int nError, SocketPtr) { lastError = nError; };
    struct {
        bool alert;
        int error;
    } cases[] = {{true, 0}, {false, WSAECONNRESET}};
    long closes = 0;
    for (auto& c : cases) {
        SOCKET peer = ConnectLoopback(m_nPort);
        ASSERT_NE(INVALID_SOCKET, peer);
        HSSL hSSL = OPENSSL_connect(peer);
        ASSERT_NE(0u, hSSL) << "handshake with the server";
        ASSERT_TRUE(m_spServer->connects.WaitAtLeast(closes + 1, "server OnConnect"));
        if (c.alert)
            OPENSSL_shutdown(hSSL);
        closesocket(peer);
        ASSERT_TRUE(m_spServer->closes.WaitAtLeast(++closes, "server OnClose"));
        EXPECT_EQ(c.error, lastError.load()) << (c.alert ? "close alert, then TCP" : "TCP closed alone");
        if (!c.alert)
            OPENSSL_shutdown(hSSL);   // frees the handle
    }
}

// More silent peers (TCP connected, no handshake) than the factory has
// workers: a real client that comes after them still gets its handshake at
// once, not after the silent ones have run out their 10 s bound.
TEST_F(TlsOrder, SilentPeersDontHoldUpARealClient)
{
    std::vector<SOCKET> silent;
    for (int i = 0; i < m_spFactory->GetWorkThreadCount() + 2; ++i)
        silent.push_back(ConnectLoopback(m_nPort));
    SocketPtr spSocket = ConnectClient(m_spClient);
    ASSERT_TRUE(m_spClient->connects.WaitAtLeast(1, "the real client's OnConnect while silent peers wait",
                                                 std::chrono::seconds(5)));
    for (SOCKET s : silent)
        closesocket(s);
}
