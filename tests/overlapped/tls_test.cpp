// TLS sockets of the completion-port stack (the scenarios they share with
// plain sockets run on both in BothKinds): the order of notifications around
// the handshake and the close, Close from inside each notification, sends
// queued before the handshake, a writer held up by a slow reader, and a churn
// of connections. Every test ends with the leak checks of the fixture.
#include <atomic>

#include "stack_fixture.h"
#include "tls/overlapped_ssl.h"

namespace {

// Protected state of a TLS socket, for checks after Close.
struct SslState : COverlappedSSL {
    static const COverlappedSSL* Ssl(const SocketPtr& s) { return static_cast<const COverlappedSSL*>(s.get()); }
    static HSSL Handle(const SocketPtr& s) { return Ssl(s)->*(&SslState::m_hSSL); }
    static WSAEVENT Event(const SocketPtr& s) { return Ssl(s)->*(&SslState::m_hNetworkEvent); }
    static bool HoldsItself(const SocketPtr& s)
    {
        return (Ssl(s)->*(&SslState::m_RecvInfo)).m_spSocket || (Ssl(s)->*(&SslState::m_SendPostInfo)).m_spSocket;
    }
    static size_t AcceptsOutstanding(const SocketPtr& s) { return (s.get()->*(&SslState::m_setAcceptSockets)).size(); }
};

// The names of a log's notifications, without their error codes.
Log Kinds(const Log& log)
{
    Log kinds;
    for (const std::string& entry : log)
        kinds.push_back(entry.substr(0, entry.find('(')));
    return kinds;
}

void SendInPieces(const SocketPtr& s, const std::string& data, size_t nPiece)
{
    for (size_t nDone = 0; nDone < data.size(); nDone += nPiece) {
        int nLength = static_cast<int>(std::min(nPiece, data.size() - nDone));
        ASSERT_EQ(nLength, s->Send(data.data() + nDone, nLength, 0)) << "Send failed: " << WSAGetLastError();
    }
}

}  // namespace

// A TLS factory with a listener and a pool of four accepts.
class TlsTest : public StackTest {
protected:
    TlsTest() { kind = 1, workers = 4; }
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(StackTest::SetUp());
        listen = Listen(port, 4);
        ASSERT_TRUE(listen && listen->IsKindOf(RUNTIME_CLASS(COverlappedSSL))) << "a TLS factory made a plain socket";
    }
    void TearDown() override
    {
        listen.reset();   // Destory ends it; the leak checks want its OnDelete
        StackTest::TearDown();
    }
    SocketPtr ConnectTls(std::shared_ptr<RecordingNotify> notify = nullptr)
    {
        SocketPtr s = factory->CreateSocket(notify ? notify : client, 0, nullptr);
        EXPECT_TRUE(s && s->Connect(L"127.0.0.1", port)) << "TLS client";
        return s;
    }

    unsigned short port = 0;
    SocketPtr listen;
};

TEST_F(TlsTest, HandshakeFailureGivesOnCloseWithoutOnConnectAndKeepsThePool)
{
    SOCKET raw = ConnectLoopback(port);
    const char garbage[] = "GET / HTTP/1.0\r\n\r\n";
    ASSERT_TRUE(SendAll(raw, garbage, sizeof(garbage) - 1));
    ASSERT_TRUE(server->deletes.WaitAtLeast(1, "the socket of the failed handshake deleted"));
    closesocket(raw);
    EXPECT_EQ(0, server->connects.Get()) << "no OnConnect after a failed handshake";
    EXPECT_TRUE(Eventually([&] { return SslState::AcceptsOutstanding(listen) == 4; }, "the pool back at 4 accepts"));
    ConnectTls();
    EXPECT_TRUE(client->connects.WaitAtLeast(1, "a TLS client after the failure"));
}

// The server writes and closes from inside OnSend: the data reaches the
// client before the close.
TEST_F(TlsTest, PeerCloseWithDataDeliversTheDataThenCloses)
{
    const std::string data = Pattern(3000, 5);
    server->onConnect = [data](int nError, SocketPtr s) {
        if (nError == 0)
            s->Send(data.data(), static_cast<int>(data.size()), 0);
    };
    server->onSend = [](int, int, SocketPtr s) {
        if (s->GetWaitSendListPackSize() == 0)
            s->Close();
    };
    const COverlappedSocket* p = ConnectTls().get();
    ASSERT_TRUE(client->deletes.WaitAtLeast(1, "the client socket ended by its peer"));
    EXPECT_EQ((Log{"OnConnect", "OnReceive", "OnClose", "OnDelete"}), Kinds(client->Log(p)));
    EXPECT_TRUE(client->Received(p) == data) << "data of the closing peer lost";
}

TEST_F(TlsTest, CloseFromInsideOnReceiveAndOnCloseReportsOnce)
{
    server->onReceive = [](const void*, int, SocketPtr s) { s->Close(); };
    server->onClose = [](int, SocketPtr s) {
        s->Close();   // the inner call does nothing
        EXPECT_EQ(0, s->IsConnected());
    };
    SocketPtr s = ConnectTls();
    ASSERT_TRUE(client->connects.WaitAtLeast(1, "client OnConnect"));
    s->Send("x", 1, 0);
    ASSERT_TRUE(server->deletes.WaitAtLeast(1, "the server socket closed in OnReceive deleted"));
    ASSERT_TRUE(client->closes.WaitAtLeast(1, "the client sees the close"));
    EXPECT_EQ(1, server->closes.Get());
    EXPECT_EQ(0, s->IsConnected());
    EXPECT_EQ(0, s->Send("y", 1, 0));
    EXPECT_EQ(WSAENOTSOCK, WSAGetLastError());
}

TEST_F(TlsTest, CloseFromInsideOnConnectLeavesNoReferenceToItself)
{
    server->onConnect = [](int nError, SocketPtr s) {
        if (nError == 0)
            s->Close();
    };
    SocketPtr s = ConnectTls();
    ASSERT_TRUE(server->deletes.WaitAtLeast(1, "the server socket closed in OnConnect deleted"));
    ASSERT_TRUE(client->closes.WaitAtLeast(1, "the client sees the close"));
    // The close that reported OnClose may still be ending the connection on
    // its own thread; this Close then returns at once.
    s->Close();
    EXPECT_TRUE(Eventually([&] { return SslState::Handle(s) == 0; }, "TLS handle ended"));
    EXPECT_TRUE(Eventually([&] { return SslState::Event(s) == nullptr; }, "network event closed"));
    EXPECT_TRUE(Eventually([&] { return !SslState::HoldsItself(s); }, "no reference to itself"));
}

// A peer that closes TCP after the TLS close alert, and one that closes TCP
// alone (data may have been cut off): OnClose tells them apart.
TEST_F(TlsTest, OnCloseTellsACleanTlsCloseFromATruncatedOne)
{
    DebugCapture trace;
    std::atomic<int> lastError(-1);
    server->onClose = [&](int nError, SocketPtr) { lastError = nError; };
    long closes = 0;
    for (bool alert : {true, false}) {
        SOCKET peer = ConnectLoopback(port);
        HSSL hSSL = OPENSSL_connect(peer);
        ASSERT_NE(0u, hSSL) << "handshake with the server";
        ASSERT_TRUE(server->connects.WaitAtLeast(closes + 1, "server OnConnect"));
        if (alert)
            OPENSSL_shutdown(hSSL);
        closesocket(peer);
        ASSERT_TRUE(server->closes.WaitAtLeast(++closes, "server OnClose"));
        EXPECT_EQ(alert ? 0 : WSAECONNRESET, lastError.load()) << (alert ? "close alert, then TCP" : "TCP alone");
        EXPECT_EQ(0u, trace.StartingWith(L"COverlappedSSL::OnClose (Error = ").size()) << "no network error came";
        if (!alert)
            OPENSSL_shutdown(hSSL);   // frees the handle
    }
    server->onClose = nullptr;
}

// More silent peers (TCP connected, no handshake) than the factory has
// workers: a real client after them gets its handshake at once, not after
// the silent ones have run out their 10 s bound.
TEST_F(TlsTest, SilentPeersDontHoldUpARealClient)
{
    std::vector<SOCKET> silent;
    for (int i = 0; i < factory->GetWorkThreadCount() + 2; ++i)
        silent.push_back(ConnectLoopback(port));
    ConnectTls();
    EXPECT_TRUE(client->connects.WaitAtLeast(1, "the real client's OnConnect while silent peers wait",
                                             std::chrono::seconds(5)));
    for (SOCKET s : silent)
        closesocket(s);
}

// Send before the handshake: records queue (small sends merge into the last
// record of the same flags) and go out in order once the handshake has ended,
// after OnConnect.
TEST_F(TlsTest, SendsBeforeTheHandshakeAreMergedAndGoOutAfterIt)
{
    server->echo = true;
    client->onConnect = [](int, SocketPtr s) { EXPECT_EQ(1, s->IsConnected()) << "IsConnected in OnConnect"; };
    SocketPtr s = factory->CreateSocket(client, 0, L"127.0.0.1");
    ASSERT_TRUE(s);
    std::string data = Pattern(10300, 3);
    EXPECT_EQ(100, s->Send(data.data(), 100, 0));
    EXPECT_EQ(100, s->Send(data.data() + 100, 100, 0));
    EXPECT_EQ(1u, s->GetWaitSendListPackSize()) << "two sends with the same flags share a record";
    EXPECT_EQ(100, s->Send(data.data() + 200, 100, 1));
    EXPECT_EQ(2u, s->GetWaitSendListPackSize()) << "other flags start a new record";
    EXPECT_EQ(10000, s->Send(data.data() + 300, 10000, 1));
    EXPECT_EQ(4u, s->GetWaitSendListPackSize()) << "3996 bytes fill the last record, then 4096 and 1908";
    EXPECT_EQ(10300u, s->GetWaitSendListBufferSize());
    ASSERT_TRUE(s->Connect(L"127.0.0.1", port));
    ASSERT_TRUE(client->receives.WaitAtLeast(10300, "the echo of the bytes queued before the handshake"));
    EXPECT_TRUE(client->Received(s.get()) == data);
    EXPECT_EQ((Log{"OnConnect(0)", "OnReceive"}), client->Log(s.get())) << "OnConnect comes before every OnReceive";
    EXPECT_NE(0u, SslState::Handle(s));
}

TEST_F(TlsTest, WriterHeldUpBySlowReaderResumesOnFdWrite)
{
    DebugCapture capture;
    auto spReaderMayGo = std::make_shared<TestEvent>();
    auto spReaderStalled = std::make_shared<EventCounter>();
    server->onReceive = [spReaderMayGo, spReaderStalled](const void*, int, SocketPtr) {
        if (spReaderStalled->Get() == 0) {
            spReaderStalled->Add();
            EXPECT_TRUE(spReaderMayGo->Wait("the test to release the reader", std::chrono::seconds(30)));
        }
    };
    SocketPtr s = factory->CreateSocket(client, 0, L"127.0.0.1");
    int nSmall = 8192;
    s->SetSockOpt(SO_SNDBUF, &nSmall, sizeof(nSmall));
    ASSERT_TRUE(s->Connect(L"127.0.0.1", port));
    ASSERT_TRUE(client->connects.WaitAtLeast(1, "client OnConnect"));
    std::string data = Pattern(8 << 20, 11);
    SendInPieces(s, data, 1 << 20);
    ASSERT_TRUE(spReaderStalled->WaitAtLeast(1, "the server's first OnReceive"));
    const std::wstring wouldBlock = L"OPENSSL_write return -1, Error = 10035, ";
    ASSERT_TRUE(capture.WaitUntil([&](const std::vector<std::wstring>& texts) {
        return std::any_of(texts.begin(), texts.end(), [&](const std::wstring& t) { return t.rfind(wouldBlock, 0) == 0; });
    }, std::chrono::seconds(30)))
        << "the client's OPENSSL_write never met would-block while the reader stalled";
    spReaderMayGo->Set();
    ASSERT_TRUE(server->receives.WaitAtLeast(static_cast<long>(data.size()), "all bytes after FD_WRITE",
                                             std::chrono::seconds(60)));
    EXPECT_TRUE(server->Received(Accepted(*server)) == data) << "bytes lost or reordered around would-block";
    EXPECT_EQ(0u, s->GetWaitSendListPackSize());
}

// Clients of a factory of their own (a handshake holds a worker until the
// peer answers, so clients and servers on shared workers could wait for each
// other) in batches, each closed inside its first OnReceive.
TEST_F(TlsTest, ChurnOfConnectionsEndsEverySocket)
{
    server->echo = true;
    client->onReceive = [](const void*, int, SocketPtr s) { s->Close(); };
    FactoryPtr clients = COverlappedSocketFactory::CreateObject(1, 4);
    const int kBatches = 20, kPerBatch = 8;
    for (int b = 0; b < kBatches; ++b) {
        for (int i = 0; i < kPerBatch; ++i) {
            SocketPtr s = clients->CreateSocket(client, 0, L"127.0.0.1");
            ASSERT_TRUE(s && s->Connect(L"127.0.0.1", port));
            s->Send("ping", 4, 0);   // queued until the handshake has ended
        }
        ASSERT_TRUE(client->deletes.WaitAtLeast((b + 1) * kPerBatch, "batch " + std::to_string(b) + " ended"));
    }
    ASSERT_TRUE(server->deletes.WaitAtLeast(kBatches * kPerBatch, "server sides ended by their peers"));
    EXPECT_EQ(kBatches * kPerBatch, client->connects.Get());
    clients->Destory();
}
