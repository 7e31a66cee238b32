// Every TLS socket ends: one OnClose, then one OnDelete, and the module heap
// and the process's handles come back to where they were, after a churn of
// connections.
#include <vector>

#include "support/leak.h"
#include "tls_fixture.h"

namespace {

// One full life of a TLS factory with a connection, so that what the process
// keeps for good (thread-pool threads, the TLS library's state) exists before
// a baseline is taken.
void WarmUp()
{
    auto spFactory = COverlappedSocketFactory::CreateObject(1, 2);
    ASSERT_TRUE(spFactory);
    auto spRecorder = std::make_shared<Recorder>();
    SocketPtr spListen = spFactory->CreateSocket(spRecorder, 0, L"127.0.0.1");
    ASSERT_TRUE(spListen && spListen->Listen(4));
    spFactory->CreateSocket(spRecorder, spListen, 1);
    SocketPtr spClient = spFactory->CreateSocket(spRecorder, 0, L"127.0.0.1");
    ASSERT_TRUE(spClient && spClient->Connect(L"127.0.0.1", LocalPort(spListen)));
    ASSERT_TRUE(spRecorder->connects.WaitAtLeast(2, "warm-up connection"));
    spFactory->Destory();
}

void MakeEcho(Recorder& server)
{
    server.onReceive = [](const void* pData, int nLength, SocketPtr s) { s->Send(pData, nLength, 0); };
}

// A TLS echo server (a listener with 8 accepts) and a factory for its
// clients. The clients have a factory of their own: a handshake holds a
// worker until the peer answers, so 8 clients and 8 servers on 4 shared
// workers could wait for each other until the handshake time-out.
struct EchoServerAndClients {
    void Start(int nBacklog)
    {
        spFactory = COverlappedSocketFactory::CreateObject(1, 4);
        ASSERT_TRUE(spFactory);
        spClientFactory = COverlappedSocketFactory::CreateObject(1, 4);
        ASSERT_TRUE(spClientFactory);
        MakeEcho(*spServer);
        spListen = spFactory->CreateSocket(spServer, 0, L"127.0.0.1");
        ASSERT_TRUE(spListen && spListen->Listen(nBacklog));
        nPort = LocalPort(spListen);
        spFactory->CreateSocket(spServer, spListen, 8);
    }
    // A client that connects to the server and sends (queued until the handshake has ended).
    void ConnectAndSend(const void* pData, int nLength)
    {
        SocketPtr spSocket = spClientFactory->CreateSocket(spClient, 0, L"127.0.0.1");
        ASSERT_TRUE(spSocket && spSocket->Connect(L"127.0.0.1", nPort));
        spSocket->Send(pData, nLength, 0);
    }
    void Destory()
    {
        spListen.reset();
        spFactory->Destory();
        spClientFactory->Destory();
    }

    std::shared_ptr<COverlappedSocketFactory> spFactory, spClientFactory;
    std::shared_ptr<Recorder> spServer = std::make_shared<Recorder>();
    std::shared_ptr<Recorder> spClient = std::make_shared<Recorder>();
    SocketPtr spListen;
    unsigned short nPort = 0;
};

}  // namespace

TEST(TlsLeaks, ChurnOfConnectionsEndsEverySocket)
{
    UseTestCertificates();
    WarmUp();
    LeakBaseline baseline;
    {
        EchoServerAndClients run;
        run.spClient->onReceive = [](const void*, int, SocketPtr s) { s->Close(); };
        ASSERT_NO_FATAL_FAILURE(run.Start(64));
        auto& spServer = run.spServer;
        auto& spClient = run.spClient;
        const int kBatches = 20, kPerBatch = 8;
        for (int b = 0; b < kBatches; ++b) {
            for (int i = 0; i < kPerBatch; ++i)
                ASSERT_NO_FATAL_FAILURE(run.ConnectAndSend("ping", 4));
            ASSERT_TRUE(spClient->deletes.WaitAtLeast((b + 1) * kPerBatch, "batch " + std::to_string(b) +
                                                                                  " of clients closed and deleted"));
        }
        ASSERT_TRUE(spServer->deletes.WaitAtLeast(kBatches * kPerBatch, "server sides ended by their peers"));
        run.Destory();
        EXPECT_TRUE(spClient->EachSocketClosedOnceThenDeleted());
        EXPECT_TRUE(Eventually([&] { return spServer->Count(Note::Delete) == spServer->Count(Note::Close); },
                               "every server socket deleted after Destory"));
        EXPECT_TRUE(spServer->EachSocketClosedOnceThenDeleted());
        EXPECT_EQ(kBatches * kPerBatch, spClient->Count(Note::Connect));
    }
    EXPECT_TRUE(baseline.Check("churn of 160 TLS connections"));
}
