// Receive time-outs: the tick arithmetic of the walk, and (the one slow test)
// reports on live sockets.
#include "stack_fixture.h"

typedef CRecvTimerRequest R;

namespace {

R Entry(DWORD start, DWORD timeout)
{
    R r;
    r.m_dwStartTick = start;
    r.m_dwExpireTick = start + timeout;
    r.m_dwTimeout = timeout;
    return r;
}

}  // namespace

TEST(ReceiveTimeoutTicks, WithoutWrapTheWalkStopsAtTheFirstEntryAhead)
{
    R r = Entry(1000, 5000);
    EXPECT_EQ(R::STOP_WALK, r.CheckDue(5999, 4000));
    EXPECT_EQ(R::DUE, r.CheckDue(6000, 4000));
    EXPECT_EQ(R::DUE, r.CheckDue(7000, 6500));
}

TEST(ReceiveTimeoutTicks, AfterAWrapEntriesAreMeasuredFromTheirStart)
{
    // Armed before the wrap, key wrapped past 0: not due until T has run.
    R wrappedKey = Entry(0xFFFFF000, 0x2000);
    ASSERT_EQ(0x1000u, wrappedKey.m_dwExpireTick);
    EXPECT_EQ(R::NOT_DUE, wrappedKey.CheckDue(0x500, 0xFFFFF800));
    EXPECT_EQ(R::DUE, wrappedKey.CheckDue(0x1000, 0xFFFFF800));
    // Armed before the wrap with a key before the wrap: looks ahead, but T has run.
    R oldKey = Entry(0xFFFFF000, 0x800);
    EXPECT_EQ(R::DUE, oldKey.CheckDue(0x100, 0xFFFFF100));
    // Armed after the wrap: the walk goes on past it in this first pass.
    R fresh = Entry(0x100, 0x5000);
    EXPECT_EQ(R::NOT_DUE, fresh.CheckDue(0x200, 0xFFFFFF00));
    // From the next pass on the early stop works again.
    EXPECT_EQ(R::STOP_WALK, fresh.CheckDue(0x300, 0x200));
}

TEST(ReceiveTimeoutTicks, SilenceIsSignedAcrossTheWrap)
{
    EXPECT_TRUE(R::IsSilent(1000, 0, 1000));
    EXPECT_FALSE(R::IsSilent(999, 0, 1000));
    EXPECT_TRUE(R::IsSilent(0x100, 0xFFFFFF00, 0x200));
    EXPECT_FALSE(R::IsSilent(0x100, 0xFFFFFF00, 0x201));
    // Time-outs of 2^31 and above read as negative: silent at once.
    EXPECT_TRUE(R::IsSilent(10, 10, 0x80000000));
    EXPECT_TRUE(R::IsSilent(10, 10, 0xFFFFFFFF));
    // A receive "after" now (tick read before the store) is not silence.
    EXPECT_FALSE(R::IsSilent(10, 20, 5));
}

namespace {

struct Clock {
    std::mutex m;
    std::map<const COverlappedSocket*, std::vector<ULONGLONG>> reports;
    void Report(const COverlappedSocket* p)
    {
        std::lock_guard<std::mutex> l(m);
        reports[p].push_back(GetTickCount64());
    }
    std::vector<ULONGLONG> Of(const COverlappedSocket* p)
    {
        std::lock_guard<std::mutex> l(m);
        return reports[p];
    }
};

}  // namespace

TEST_F(StackTest, ReceiveTimeoutsReportMoveRearmAndEnd)
{
    unsigned short port;
    SocketPtr listen = Listen(port, 5);
    std::mutex m;
    std::vector<SocketPtr> accepted;
    server->onConnect = [&](int, SocketPtr s) {
        std::lock_guard<std::mutex> l(m);
        accepted.push_back(s);
    };
    std::vector<SOCKET> peers;
    for (int i = 0; i < 5; ++i) {
        peers.push_back(Peer(port));
        ASSERT_TRUE(server->connects.WaitAtLeast(i + 1, "accept"));
    }
    SocketPtr a = accepted[0], b = accepted[1], c = accepted[2], d = accepted[3], e = accepted[4];
    Clock clock;
    TestEvent firstOfB;
    int dCalls = 0;
    server->onTimeout = [&](SocketPtr s) -> DWORD {
        clock.Report(s.get());
        size_t n = clock.Of(s.get()).size();
        if (s == b) {
            if (n == 1)
                firstOfB.Set();
            return n == 1 ? 1000 : 0;   // once more after a second, then stop
        }
        if (s == d && ++dCalls == 1) {
            s->SetReceiveTimeout(3000);   // comes back at the next pass, although 0 ends the entry
            return 0;
        }
        return 0;
    };
    ULONGLONG t0 = GetTickCount64();
    a->SetReceiveTimeout(5000);
    b->SetReceiveTimeout(2000);
    c->SetReceiveTimeout(4000);   // falls due two passes after B's first report, so that C's receive comes first
    d->SetReceiveTimeout(1000);
    e->SetReceiveTimeout(10000);
    e->Close();   // its entry goes at once, without a report
    const COverlappedSocket* eRaw = e.get();
    e.reset();
    {
        std::lock_guard<std::mutex> l(m);
        accepted.erase(accepted.begin() + 4);
    }
    EXPECT_TRUE(LogBecomes(*server, eRaw, {"OnConnect(0)", "OnClose(0)", "OnDelete"}));
    EXPECT_LT(GetTickCount64() - t0, 5000u) << "a closed socket's entry doesn't hold it until it falls due";

    ASSERT_TRUE(firstOfB.Wait("first report of B", std::chrono::seconds(5)));
    const ULONGLONG cSent = GetTickCount64();
    ASSERT_TRUE(SendAll(peers[2], "c", 1));   // C receives: its entry moves on

    ASSERT_TRUE(server->timeouts.WaitAtLeast(6, "reports of A, B twice, C, D twice", std::chrono::seconds(9)));
    auto ra = clock.Of(a.get()), rb = clock.Of(b.get()), rc = clock.Of(c.get()), rd = clock.Of(d.get());
    ASSERT_EQ(1u, ra.size());
    EXPECT_GE(ra[0] - t0, 5000u);
    EXPECT_LE(ra[0] - t0, 7000u);
    ASSERT_EQ(2u, rb.size());
    EXPECT_GE(rb[1] - rb[0], 900u);
    EXPECT_LE(rb[1] - rb[0], 2500u);
    EXPECT_EQ(1000u, b->GetReceiveTimeout());
    ASSERT_EQ(1u, rc.size());
    ASSERT_TRUE(server->receives.WaitAtLeast(1, "C's byte"));
    EXPECT_GE(rc[0] - cSent, 2900u) << "C was reported although it received";
    ASSERT_EQ(2u, rd.size());
    EXPECT_GE(rd[1] - rd[0], 2900u);
    EXPECT_LE(rd[1] - rd[0], 4600u) << "the request made inside the report replaced the ended entry";
    EXPECT_EQ(0, a->IsClose()) << "a time-out closes nothing";
    for (SOCKET p : peers)
        closesocket(p);
    a.reset(); b.reset(); c.reset(); d.reset();
    std::lock_guard<std::mutex> l(m);
    accepted.clear();
}
