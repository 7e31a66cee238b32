// Every TLS socket ends: one OnClose, then one OnDelete, and the module heap
// and the process's handles come back to where they were, after a churn of
// connections and after Destory under live traffic.
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

}  // namespace

TEST(TlsLeaks, ChurnOfConnectionsEndsEverySocket)
{
    AllowSelfSignedServer();
    WarmUp();
    LeakBaseline baseline;
    {
        auto spFactory = COverlappedSocketFactory::CreateObject(1, 4);
        ASSERT_TRUE(spFactory);
        // Clients on a factory of their own: a handshake holds a worker until
        // the peer answers, so 8 clients and 8 servers on 4 shared workers
        // could wait for each other until the handshake time-out.
        auto spClientFactory = COverlappedSocketFactory::CreateObject(1, 4);
        ASSERT_TRUE(spClientFactory);
        auto spServer = std::make_shared<Recorder>();
        auto spClient = std::make_shared<Recorder>();
        MakeEcho(*spServer);
        spClient->onReceive = [](const void*, int, SocketPtr s) { s->Close(); };
        SocketPtr spListen = spFactory->CreateSocket(spServer, 0, L"127.0.0.1");
        ASSERT_TRUE(spListen && spListen->Listen(64));
        unsigned short nPort = LocalPort(spListen);
        spFactory->CreateSocket(spServer, spListen, 8);
        const int kBatches = 20, kPerBatch = 8;
        for (int b = 0; b < kBatches; ++b) {
            for (int i = 0; i < kPerBatch; ++i) {
                SocketPtr spSocket = spClientFactory->CreateSocket(spClient, 0, L"127.0.0.1");
                ASSERT_TRUE(spSocket && spSocket->Connect(L"127.0.0.1", nPort));
                spSocket->Send("ping", 4, 0);   // queued until the handshake has ended
            }
            ASSERT_TRUE(spClient->deletes.WaitAtLeast((b + 1) * kPerBatch, "batch " + std::to_string(b) +
                                                                                  " of clients closed and deleted"));
        }
        ASSERT_TRUE(spServer->deletes.WaitAtLeast(kBatches * kPerBatch, "server sides ended by their peers"));
        spListen.reset();
        spFactory->Destory();
        spClientFactory->Destory();
        EXPECT_TRUE(spClient->EachSocketClosedOnceThenDeleted());
        EXPECT_TRUE(Eventually([&] { return spServer->Count(Note::Delete) == spServer->Count(Note::Close); },
                               "every server socket deleted after Destory"));
        EXPECT_TRUE(spServer->EachSocketClosedOnceThenDeleted());
        EXPECT_EQ(kBatches * kPerBatch, spClient->Count(Note::Connect));
    }
    EXPECT_TRUE(baseline.Check("churn of 160 TLS connections"));
}

TEST(TlsLeaks, DestoryUnderLiveTrafficEndsEverySocket)
{
    AllowSelfSignedServer();
    WarmUp();
    LeakBaseline baseline;
    {
        auto spFactory = COverlappedSocketFactory::CreateObject(1, 4);
        ASSERT_TRUE(spFactory);
        auto spClientFactory = COverlappedSocketFactory::CreateObject(1, 4);
        ASSERT_TRUE(spClientFactory);
        auto spServer = std::make_shared<Recorder>();
        auto spClient = std::make_shared<Recorder>();
        MakeEcho(*spServer);
        MakeEcho(*spClient);   // ping-pong for ever
        SocketPtr spListen = spFactory->CreateSocket(spServer, 0, L"127.0.0.1");
        ASSERT_TRUE(spListen && spListen->Listen(16));
        unsigned short nPort = LocalPort(spListen);
        spFactory->CreateSocket(spServer, spListen, 8);
        const std::string block = Pattern(20000, 9);
        for (int i = 0; i < 8; ++i) {
            SocketPtr spSocket = spClientFactory->CreateSocket(spClient, 0, L"127.0.0.1");
            ASSERT_TRUE(spSocket && spSocket->Connect(L"127.0.0.1", nPort));
            spSocket->Send(block.data(), static_cast<int>(block.size()), 0);
        }
        ASSERT_TRUE(spClient->receivedBytes.WaitAtLeast(8 * 20000 * 3, "traffic on all connections"));
        spListen.reset();
        spFactory->Destory();
        spClientFactory->Destory();
        EXPECT_TRUE(Eventually(
            [&] {
                return spServer->Count(Note::Delete) == spServer->Count(Note::Close) &&
                       spClient->Count(Note::Delete) == spClient->Count(Note::Close);
            },
            "every socket deleted after Destory"));
        EXPECT_TRUE(spServer->EachSocketClosedOnceThenDeleted());
        EXPECT_TRUE(spClient->EachSocketClosedOnceThenDeleted());
        EXPECT_EQ(8, spClient->Count(Note::Delete));
    }
    EXPECT_TRUE(baseline.Check("Destory under live TLS traffic"));
}
