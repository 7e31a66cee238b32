// Calls in the wrong state and at the wrong moment: a second Connect, a
// listener closed while its accepts wait in the port, time-out results past
// the signed range, Destory from inside a notification, calls after Destory.
// The factories here have one worker, blocked inside a notification where a
// test needs completions to wait in the port.
#include <atomic>

#include "../overlapped/stack_fixture.h"
#include "support/wait.h"

namespace {

// A one-worker factory that the test ends itself.
struct OneWorker {
    FactoryPtr factory = COverlappedSocketFactory::CreateObject(0, 1);
    ~OneWorker()
    {
        if (factory)
            factory->Destory();
    }
};

// Sends one byte and expects it back.
bool EchoesAByte(SOCKET s)
{
    char out = 'x', in = 0;
    return SendAll(s, &out, 1) && RecvAll(s, &in, 1) && in == out;
}

}  // namespace

TEST_F(StackTest, ConnectWhileAConnectOrAnAcceptIsInFlightIsRefusedAndLeavesItAlone)
{
    OneWorker one;
    ASSERT_TRUE(one.factory);
    unsigned short rawPort = 0;
    SOCKET raw = ListenLoopback(rawPort);
    ASSERT_NE(INVALID_SOCKET, raw);
    TestEvent blocked, go;
    client->onConnect = [&](int, SocketPtr) {
        if (!blocked.IsSet()) {
            blocked.Set();
            go.Wait("the test lets the worker go");
        }
    };
    SocketPtr blocker = one.factory->CreateSocket(client, 0, L"127.0.0.1");
    ASSERT_EQ(1, blocker->Connect(L"127.0.0.1", rawPort));
    ASSERT_TRUE(blocked.Wait("the worker blocked in the first OnConnect"));

    SocketPtr connecting = one.factory->CreateSocket(client, 0, L"127.0.0.1");
    ASSERT_EQ(1, connecting->Connect(L"127.0.0.1", rawPort));
    SocketPtr listen = one.factory->CreateSocket(server, 0, L"127.0.0.1");
    ASSERT_EQ(1, listen->Listen(1));
    auto accepts = one.factory->CreateSocket(server, listen, 1);
    ASSERT_TRUE(accepts[0]);
    struct {
        const char* what;
        SocketPtr socket;
    } cases[] = {{"a second Connect while ConnectEx is pending", connecting},
                 {"Connect on a socket whose AcceptEx is pending", accepts[0]}};
    for (auto& c : cases) {
        EXPECT_EQ(0, c.socket->Connect(L"127.0.0.1", rawPort)) << c.what;
        EXPECT_EQ(WSAEALREADY, COverlappedSocket::GetLastError()) << c.what;
    }
    go.Set();
    EXPECT_TRUE(client->connects.WaitAtLeast(2, "OnConnect of the first connect, which the refused one left alone"));
    EXPECT_EQ((Log{"OnConnect(0)"}), client->Log(connecting.get()));
    EXPECT_EQ(0, connecting->Connect(L"127.0.0.1", rawPort)) << "Connect on a connected socket";
    EXPECT_EQ(WSAEISCONN, COverlappedSocket::GetLastError());
    one.factory->Destory();
    closesocket(raw);
}

TEST_F(StackTest, ListenerClosedWhileItsCompletedAcceptsWaitInThePortKeepsThoseConnections)
{
    OneWorker one;
    ASSERT_TRUE(one.factory);
    SocketPtr listen = one.factory->CreateSocket(server, 0, L"127.0.0.1");
    ASSERT_EQ(1, listen->Listen(8));
    CString address;
    unsigned int bound = 0;
    ASSERT_EQ(1, listen->GetSockName(address, bound));
    unsigned short port = static_cast<unsigned short>(bound);
    auto accepts = one.factory->CreateSocket(server, listen, 4);
    TestEvent blocked, go;
    server->echo = true;
    server->onConnect = [&](int, SocketPtr) {
        if (!blocked.IsSet()) {
            blocked.Set();
            go.Wait("the test lets the worker go");
        }
    };
    SOCKET first = Peer(port);
    ASSERT_TRUE(blocked.Wait("the worker blocked in the first OnConnect"));
    std::vector<SOCKET> queued;
    for (int i = 0; i < 3; ++i)
        queued.push_back(Peer(port));
    // An accept whose AcceptEx has completed knows its peer, although no
    // worker has taken the completion yet.
    auto completedAccepts = [&] {
        int n = 0;
        for (auto& a : accepts) {
            CString peer;
            unsigned int peerPort = 0;
            n += a->GetPeerName(peer, peerPort);
        }
        return n == 4;
    };
    ASSERT_TRUE(Eventually(completedAccepts, "AcceptEx of the three queued clients completed"));
    listen->Close();
    go.Set();
    for (SOCKET s : queued)
        EXPECT_TRUE(EchoesAByte(s)) << "a connection accepted before the listener closed lives on";
    EXPECT_TRUE(EchoesAByte(first));
    EXPECT_EQ(4u, server->CountLogsEqual({"OnConnect(0)", "OnReceive"})) << "a connection closed without OnConnect";
    for (SOCKET s : queued)
        closesocket(s);
    closesocket(first);
    one.factory->Destory();
}

TEST_F(StackTest, TimeoutWindowOfTwoSecondsResultsPastTheSignedRangeGiveOneReportEach)
{
    unsigned short port;
    SocketPtr listen = Listen(port, 3);
    std::vector<SOCKET> peers;
    for (int i = 0; i < 3; ++i)
        peers.push_back(Peer(port));
    ASSERT_TRUE(server->connects.WaitAtLeast(3, "three accepts"));
    std::vector<SocketPtr> accepted;
    for (size_t i = 0; i < 3; ++i)
        accepted.push_back(std::const_pointer_cast<COverlappedSocket>(Accepted(*server, i)->shared_from_this()));
    std::atomic<long> hugeReports(0);
    TestEvent later;
    server->onTimeout = [&](SocketPtr s) -> DWORD {
        if (s == accepted[2]) {
            later.Set();
            return 0;
        }
        ++hugeReports;
        return s == accepted[0] ? 0xFFFFFFFF : 0x80000000;
    };
    accepted[0]->SetReceiveTimeout(1000);
    accepted[1]->SetReceiveTimeout(1000);
    accepted[2]->SetReceiveTimeout(2000);
    ASSERT_TRUE(later.Wait("the report of a later entry (the walk must not spin on the others)"));
    EXPECT_EQ(2, hugeReports.load()) << "a result of 0x80000000 or more schedules the next report far ahead";
    EXPECT_EQ(0x7FFFFFFFu, accepted[0]->GetReceiveTimeout());
    for (SOCKET p : peers)
        closesocket(p);
}

TEST_F(StackTest, DestoryInsideANotificationEndsEverySocketPromptly)
{
    OneWorker one;
    ASSERT_TRUE(one.factory);
    unsigned short port;
    SocketPtr listen = Listen(port, 4, nullptr, L"127.0.0.1", one.factory);
    FactoryPtr factory1 = one.factory;
    server->onReceive = [factory1](const void*, int, SocketPtr) { factory1->Destory(); };
    SOCKET peer = Peer(port);
    char byte = 'd';
    ASSERT_TRUE(SendAll(peer, &byte, 1));
    listen.reset();
    factory1.reset();
    // The listener, four accepts and the connection: the worker that called
    // Destory must not have to wait for itself.
    EXPECT_TRUE(server->deletes.WaitAtLeast(6, "OnDelete of every socket of the factory", std::chrono::seconds(5)));
    closesocket(peer);
}

TEST_F(StackTest, CallsAfterDestoryFailCleanly)
{
    unsigned short port;
    SocketPtr listen = Listen(port, 1);
    SocketPtr bound = factory->CreateSocket(client, 0, L"127.0.0.1");
    ASSERT_TRUE(bound);
    factory->Destory();
    EXPECT_FALSE(factory->CreateSocket(client, 0, L"127.0.0.1")) << "a bound socket after Destory";
    EXPECT_EQ(WSANOTINITIALISED, COverlappedSocket::GetLastError());
    EXPECT_FALSE(factory->CreateSocket(server, listen)) << "an accepting socket after Destory";
    auto pool = factory->CreateSocket(server, listen, 2);
    EXPECT_EQ(2u, pool.size());
    for (auto& a : pool)
        EXPECT_FALSE(a);
    EXPECT_EQ(0, bound->Connect(L"127.0.0.1", port));
    EXPECT_EQ(WSAENOTSOCK, COverlappedSocket::GetLastError());
    EXPECT_EQ(0, bound->Send("x", 1, 0));
    EXPECT_EQ(WSAENOTSOCK, COverlappedSocket::GetLastError());
    bound->SetReceiveTimeout(1000);
    bound->Close();
    EXPECT_EQ(1, bound->IsClose());
}

// Operations that end with an error the socket lives through, made by
// cancelling them from outside (CancelIoEx): a receive is armed again, a send
// in flight goes out again whole and in order (Wine has finished it already),
// and an accept is replaced in the pool and ends its own socket with
// OnConnect and OnClose of the error.
TEST_F(StackTest, CancelledOperationsAreRetriedOrReplacedAndLoseNothing)
{
    DebugCapture trace;
    unsigned short port;
    SocketPtr listen = Listen(port, 2);
    SOCKET peer = Peer(port);
    ASSERT_TRUE(server->connects.WaitAtLeast(1, "server OnConnect"));
    const COverlappedSocket* accepted = Accepted(*server);
    int nSmallBuffer = 4096;
    ASSERT_EQ(1, const_cast<COverlappedSocket*>(accepted)->SetSockOpt(SO_SNDBUF, &nSmallBuffer, sizeof(nSmallBuffer)));
    // The peer reads nothing yet: the send of 4 MiB stays in flight.
    const std::string data = Pattern(4 << 20, 9);
    auto s = std::const_pointer_cast<COverlappedSocket>(accepted->shared_from_this());
    ASSERT_EQ(static_cast<int>(data.size()), s->Send(data.data(), static_cast<int>(data.size()), 0));
    ASSERT_TRUE(CancelIoEx(reinterpret_cast<HANDLE>(SocketPeek::Handle(accepted)), NULL))
        << "cancel the receive and the send: " << GetLastError();
    ASSERT_TRUE(trace.WaitFor(L"GetQueuedCompletionStatus return 995\n", 1)) << "a cancelled operation came back";
    std::string back(data.size(), '\0');
    ASSERT_TRUE(RecvAll(peer, &back[0], back.size())) << "the send went out again";
    EXPECT_TRUE(back == data) << "bytes lost or reordered around the cancelled send";
    ASSERT_TRUE(SendAll(peer, "after", 5));
    ASSERT_TRUE(server->receives.WaitAtLeast(5, "a receive after the cancelled one"));
    EXPECT_EQ((Log{"OnConnect(0)", "OnReceive"}), server->Log(accepted)) << "the connection lives on";

    ASSERT_TRUE(CancelIoEx(reinterpret_cast<HANDLE>(SocketPeek::Handle(listen.get())), NULL));
    EXPECT_TRUE(server->WaitFor([&] { return server->CountLogsEqual({"OnConnect(995)", "OnClose(error)", "OnDelete"}) == 2; },
                                "both cancelled accepts ended"));
    SOCKET later = Peer(port);
    EXPECT_TRUE(server->connects.WaitAtLeast(4, "an accept of the refilled pool"));
    closesocket(later);
    closesocket(peer);
}
