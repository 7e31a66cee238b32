// The accept pool, closing listen sockets and their connections, CloseAllSocket
// and Destory, the worker count, and factories side by side.
#include "stack_fixture.h"

namespace {

const Log kAcceptNeverConnected = {"OnClose(0)", "OnDelete"};

}  // namespace


TEST(FactoryCreation, WorkerCountFollowsTheProcessorRule)
{
    EXPECT_EQ(8, COverlappedSocketFactory::WorkThreadCountFor(0, 4));
    EXPECT_EQ(8, COverlappedSocketFactory::WorkThreadCountFor(-1, 4));
    EXPECT_EQ(3, COverlappedSocketFactory::WorkThreadCountFor(3, 4));
    EXPECT_EQ(16, COverlappedSocketFactory::WorkThreadCountFor(16, 4));
    EXPECT_EQ(16, COverlappedSocketFactory::WorkThreadCountFor(17, 4));
}

// Winsock's start count of the process: WSACleanup until it refuses, then as
// many WSAStartup again. (No socket may be open: the last WSACleanup ends them.)
int WinsockStarts()
{
    int n = 0;
    while (WSACleanup() == 0)
        ++n;
    WSADATA data;
    for (int i = 0; i < n; ++i)
        WSAStartup(MAKEWORD(2, 2), &data);
    return n;
}

TEST(FactoryCreation, UnknownKindHoldsNothingAndDestoryEndsTheWinsockStart)
{
    const int nStarts = WinsockStarts();
    LeakBaseline baseline;
    EXPECT_FALSE(COverlappedSocketFactory::CreateObject(2, 1));
    EXPECT_FALSE(COverlappedSocketFactory::CreateObject(-1, 1));
    EXPECT_TRUE(baseline.Check("failed CreateObject"));
    EXPECT_EQ(nStarts, WinsockStarts()) << "a failed CreateObject keeps no Winsock start";
    FactoryPtr factory = COverlappedSocketFactory::CreateObject(0, 1);
    ASSERT_TRUE(factory);
    EXPECT_EQ(nStarts + 1, WinsockStarts());
    factory->Destory();
    EXPECT_EQ(nStarts, WinsockStarts()) << "Destory ends the factory's Winsock start";
}

TEST_F(StackTest, AcceptPoolKeepsItsSizeAndIsNotRefilledFromAClosedListenSocket)
{
    unsigned short port;
    SocketPtr listen = Listen(port, 3);
    server->echo = true;
    std::vector<SOCKET> peers;
    for (int i = 0; i < 4; ++i) {   // one more than the pool: replacements must have been posted
        peers.push_back(Peer(port));
        ASSERT_TRUE(server->connects.WaitAtLeast(i + 1, "accept " + std::to_string(i + 1)));
    }
    EXPECT_EQ(1, listen->IsListenSocket());
    listen->Close();
    // The three outstanding accepts: closed, never connected, gone.
    EXPECT_TRUE(server->WaitFor([&] { return server->CountLogsEqual(kAcceptNeverConnected) == 3; },
                           "exactly three accepts end"));
    EXPECT_EQ((Log{"OnClose(0)"}), server->Log(listen.get()));
    EXPECT_EQ(0, listen->IsListenSocket());
    // Established connections outlive their listen socket.
    char buf[3];
    ASSERT_TRUE(SendAll(peers[3], "abc", 3));
    EXPECT_TRUE(RecvAll(peers[3], buf, 3));
    EXPECT_EQ(4u + 4u, server->Entries().size()) << "no accept was started after the listen socket closed";
    for (SOCKET p : peers)
        closesocket(p);
}

TEST_F(StackTest, DestoryClosesEverythingEndsEveryThreadAndTwiceIsHarmless)
{
    DebugCapture trace;
    unsigned short port;
    SocketPtr listen = Listen(port, 4);
    SocketPtr c = ConnectTo(port);
    ASSERT_TRUE(client->connects.WaitAtLeast(1, "client OnConnect"));
    ASSERT_TRUE(server->connects.WaitAtLeast(1, "server OnConnect"));
    std::string big = Pattern(256 * 1024);
    c->Send(big.data(), static_cast<int>(big.size()), 0);   // a send side busy at Destory
    RefusingPort nobody;
    SocketPtr pending = ConnectTo(nobody.port);

    factory->Destory();
    EXPECT_EQ(1, c->IsClose());
    EXPECT_EQ(1, listen->IsClose());
    EXPECT_EQ(factory, c->GetFactory()) << "a socket held after Destory still knows its factory";
    EXPECT_EQ(2u, trace.StartingWith(L"Exit OverlappedSocket Thread, ThreadId = ").size());
    factory->Destory();   // returns at once
    // Every socket was told of its end exactly once.
    for (auto* notify : {server.get(), client.get()})
        for (const auto& e : notify->Entries())
            EXPECT_EQ(1, std::count_if(e.log.begin(), e.log.end(), [](const std::string& s) { return s.rfind("OnClose", 0) == 0; }));
}

TEST_F(StackTest, PoolOverloadCountsAndRefusals)
{
    SocketPtr listen = factory->CreateSocket(server, 0, L"127.0.0.1");
    ASSERT_TRUE(listen);
    EXPECT_TRUE(factory->CreateSocket(server, listen, -1).empty());
    EXPECT_TRUE(factory->CreateSocket(server, SocketPtr(), 3).empty());
    EXPECT_TRUE(factory->CreateSocket(nullptr, listen, 3).empty());
    // Not listening yet: the default backlog of 5. (Windows refuses AcceptEx
    // here and the elements are empty; Wine accepts it, see docs/wine-notes.md.)
    EXPECT_EQ(5u, factory->CreateSocket(server, listen, 0).size());
    ASSERT_EQ(1, listen->Listen(20));
    auto pool = factory->CreateSocket(server, listen, 0);
    EXPECT_EQ(20u, pool.size());
    EXPECT_EQ(20, std::count_if(pool.begin(), pool.end(), [](const SocketPtr& s) { return bool(s); }));
}

// CloseAllAcceptedSocket closes the connections of its listener and no
// other's; CloseAllSocket closes every socket of its factory and no other's,
// and the factory goes on; Destory of one factory leaves another running.
TEST_F(StackTest, CloseAllAndDestoryTouchOnlyTheirOwnSockets)
{
    FactoryPtr second = COverlappedSocketFactory::CreateObject(0, 1);
    ASSERT_TRUE(second);
    auto notify = std::make_shared<RecordingNotify>();
    notify->echo = true;
    server->echo = true;
    unsigned short port2;
    SocketPtr listen2 = Listen(port2, 2, notify, L"127.0.0.1", second);
    unsigned short port, portB;
    SocketPtr listen = Listen(port, 2);
    auto other = std::make_shared<RecordingNotify>();
    SocketPtr listenB = Listen(portB, 2, other);
    SOCKET peer = Peer(port), peerB = Peer(portB);
    ASSERT_TRUE(server->connects.WaitAtLeast(1, "accept on A"));
    ASSERT_TRUE(other->connects.WaitAtLeast(1, "accept on B"));
    listen->CloseAllAcceptedSocket();
    EXPECT_TRUE(LogBecomes(*server, Accepted(*server), {"OnConnect(0)", "OnClose(0)", "OnDelete"}));
    EXPECT_EQ((Log{"OnConnect(0)"}), other->Log(Accepted(*other))) << "another listener's connection";
    EXPECT_EQ(0, listen->IsClose());
    closesocket(peer);
    closesocket(peerB);

    SocketPtr c = ConnectTo(port);
    ASSERT_TRUE(server->connects.WaitAtLeast(2, "A still accepts"));
    ASSERT_TRUE(client->connects.WaitAtLeast(1, "client OnConnect"));
    factory->CloseAllSocket();
    EXPECT_EQ(1, listen->IsClose());
    EXPECT_EQ(1, c->IsClose());
    EXPECT_EQ(0, listen2->IsClose()) << "another factory's socket";
    EXPECT_TRUE(server->WaitFor([&] { return server->CountLogsEqual({"OnConnect(0)", "OnClose(0)", "OnDelete"}) == 2; },
                                "accepted sockets closed and gone"));
    SocketPtr listen3 = Listen(port, 1);
    for (unsigned short p : {port, port2}) {   // this factory, then the second after this one's Destory
        SOCKET peer = Peer(p);
        char buf[2];
        ASSERT_TRUE(SendAll(peer, "ok", 2));
        EXPECT_TRUE(RecvAll(peer, buf, 2)) << (p == port ? "after CloseAllSocket" : "after the other's Destory");
        closesocket(peer);
        factory->Destory();
    }
    listen2.reset();
    listenB.reset();
    second->Destory();
    second.reset();
    ExpectEveryOnDeleteOnceAndLast(*notify, "second factory");
    ExpectEveryOnDeleteOnceAndLast(*other, "other listener");
}
