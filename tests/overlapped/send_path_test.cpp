// The send path: splitting into 4096-byte records, merging into the last
// waiting record, the backlog queries, and the failures of Send.
#include "stack_fixture.h"

namespace {

struct Backlog {
    size_t packs, bytes;
};

Backlog BacklogOf(const SocketPtr& s) { return {s->GetWaitSendListPackSize(), s->GetWaitSendListBufferSize()}; }

}  // namespace

// A socket that never connects: its first WSASend never finishes (or fails at
// once), so whatever follows stays in the wait-send list and can be counted.
TEST_F(StackTest, SendSplitsIntoRecordsAndMergesIntoTheLastWaitingOne)
{
    SocketPtr s = factory->CreateSocket(client, 0, L"127.0.0.1");
    ASSERT_TRUE(s);
    std::string data = Pattern(20000);
    ASSERT_EQ(10000, s->Send(data.data(), 10000, 0));
    Backlog b0 = BacklogOf(s);
    // 4096 + 4096 + 1808: the first is in flight or, if WSASend failed at once, waits too.
    ASSERT_TRUE((b0.packs == 2 && b0.bytes == 5904) || (b0.packs == 3 && b0.bytes == 10000))
        << b0.packs << " records, " << b0.bytes << " bytes";

    ASSERT_EQ(5000, s->Send(data.data(), 5000, 0));   // 2288 into the last, 2712 new
    Backlog b1 = BacklogOf(s);
    EXPECT_EQ(b0.packs + 1, b1.packs);
    EXPECT_EQ(b0.bytes + 5000, b1.bytes);

    ASSERT_EQ(10, s->Send(data.data(), 10, MSG_DONTROUTE));   // other flags: never appended
    Backlog b2 = BacklogOf(s);
    EXPECT_EQ(b1.packs + 1, b2.packs);
    ASSERT_EQ(4080, s->Send(data.data(), 4080, MSG_DONTROUTE));   // that record now holds 4090
    Backlog b3 = BacklogOf(s);
    EXPECT_EQ(b2.packs, b3.packs);
    ASSERT_EQ(10, s->Send(data.data(), 10, MSG_DONTROUTE));   // 6 fill it, 4 go into a new one
    Backlog b4 = BacklogOf(s);
    EXPECT_EQ(b3.packs + 1, b4.packs);
    EXPECT_EQ(b3.bytes + 10, b4.bytes);
    ASSERT_EQ(4096 * 3, s->Send(data.data(), 4096 * 3, 0));   // 4092 + 4096 + 4096 + 4
    EXPECT_EQ(b4.packs + 3, BacklogOf(s).packs);

    s->Close();
    EXPECT_EQ(0u, s->GetWaitSendListPackSize()) << "Close drops what waited";
    EXPECT_EQ(0, s->Send(data.data(), 1, 0));
    EXPECT_EQ(WSAENOTSOCK, COverlappedSocket::GetLastError());
}

// One record on an idle connected socket goes straight out (nothing waits);
// a socket told not to report sends gets no OnSend.
TEST_F(StackTest, OneRecordOnAnIdleSocketGoesStraightOutAndOnSendCanBeTurnedOff)
{
    unsigned short port;
    SocketPtr listen = Listen(port, 1);
    server->echo = true;
    SocketPtr c = ConnectTo(port);
    c->SetNotifyObject(client, 0);
    ASSERT_TRUE(client->connects.WaitAtLeast(1, "client OnConnect"));
    std::string data = Pattern(4096);
    ASSERT_EQ(4096, c->Send(data.data(), 4096, 0));
    EXPECT_EQ(0u, c->GetWaitSendListPackSize());
    ASSERT_TRUE(client->receives.WaitAtLeast(4096, "echo of 4096 bytes"));
    EXPECT_TRUE(client->Received(c.get()) == data);
    EXPECT_EQ(0, client->Of(c.get()).sent);
}

// Sends of nothing or from no buffer are refused; the record size is clamped.
TEST_F(StackTest, SendRefusalsAndTheRecordSizeClamps)
{
    SocketPtr s = factory->CreateSocket(client, 0, L"127.0.0.1");
    ASSERT_TRUE(s);
    char byte = 'x';
    EXPECT_EQ(0, s->Send(&byte, 0, 0));
    EXPECT_EQ(0, COverlappedSocket::GetLastError());
    EXPECT_EQ(0, s->Send(nullptr, 5, 0));
    EXPECT_EQ(WSA_INVALID_PARAMETER, COverlappedSocket::GetLastError());
    EXPECT_EQ(0, s->Send(&byte, -1, 0));
    EXPECT_EQ(WSA_INVALID_PARAMETER, COverlappedSocket::GetLastError());
    EXPECT_EQ(0u, s->GetWaitSendListPackSize());
    EXPECT_EQ(4096u, s->GetMaxSendPacketSize());
    const std::pair<DWORD, DWORD> cases[] = {{0xFFFFFFFF, 4096},  {99, 100},           {100, 100},
                                             {0, 100},            {0x100000, 0x100000}, {0x100001, 0x100000},
                                             {0xFFFFFFFE, 0x100000}, {5000, 5000}};
    for (auto& c : cases) {
        s->SetMaxSendPacketSize(c.first);
        EXPECT_EQ(c.second, s->GetMaxSendPacketSize()) << "SetMaxSendPacketSize(" << c.first << ")";
    }
    EXPECT_EQ(0xFFFFFFFFu, s->GetReceiveTimeout());
}

// A listener that never accepts, with a full backlog: later connects stay
// pending. A send issued then, and the socket closed before the connect
// completes, must not keep the socket alive (see docs/wine-notes.md).
TEST_F(StackTest, SocketsClosedWhileConnectingAreDestroyedWithTheirSends)
{
    unsigned short port = 0;
    SOCKET listener = ListenLoopback(port, 1);
    ASSERT_NE(INVALID_SOCKET, listener);
    std::vector<SocketPtr> sockets;
    for (int i = 0; i < 6; ++i)
        sockets.push_back(ConnectTo(port));
    EXPECT_TRUE(client->connects.WaitAtLeast(1, "the backlog's connects complete"));
    std::string data = Pattern(6000);
    for (auto& s : sockets)
        EXPECT_EQ(6000, s->Send(data.data(), 6000, 0));
    size_t stillConnecting = 0;
    for (auto& s : sockets)
        stillConnecting += client->Log(s.get()).empty() ? 1 : 0;
    EXPECT_GT(stillConnecting, 0u) << "no connect was left pending";
    std::vector<const COverlappedSocket*> raw;
    for (auto& s : sockets) {
        raw.push_back(s.get());
        s->Close();
    }
    sockets.clear();
    for (auto* p : raw)
        EXPECT_TRUE(client->WaitFor([&] { Log l = client->Log(p); return !l.empty() && l.back() == "OnDelete"; },
                               "closed connecting socket is destroyed before Destory"));
    closesocket(listener);
}
