// Reading and writing, plain and TLS: byte counts, time-outs, errors,
// blocks and overflow, and calls back into the object from notifications.
#include "comm_harness.h"

#include <algorithm>

namespace {

class TransferTest : public WiCommTest {};

TEST_F(TransferTest, HeldReadsAndReadTimeOutsFromAnyThread)
{
    Pair();
    EXPECT_EQ(1024, TcpPeek::BytesToRead(accepted)) << "the read size after OnOpen";
    static_cast<CWiTcp*>(accepted.get())->SetBytesTimeoutValid(1);
    ASSERT_EQ(1, accepted->SetTimeouts(0, 0, 0, 100));
    ASSERT_EQ(1, client->Write(std::string(60, 'a').data(), 60));   // held: fewer than the count
    ASSERT_EQ(1, client->Write(std::string(40, 'b').data(), 40));
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("read", accepted.get()) == 1; }, "one delivery of 100"));
    EXPECT_EQ(std::vector<int>{100}, srv.Lengths("read", accepted.get()));
    // 60 bytes, then the time-out: one delivery of 60, then empty time-outs.
    ASSERT_EQ(1, accepted->SetTimeouts(0, 150, 0, 100));
    ASSERT_EQ(1, client->Write(std::string(60, 'c').data(), 60));
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("read", accepted.get()) >= 3; }, "time-out deliveries"));
    std::vector<int> lengths = srv.Lengths("read", accepted.get());
    EXPECT_EQ(60, lengths[1]) << "held bytes come out at the time-out";
    EXPECT_EQ(0, lengths[2]) << "a time-out with nothing read";
    EXPECT_TRUE(m_debug.Contains(L"CWiTcp::OnWiRead  4\n"));
    EXPECT_EQ(std::string(100, 'a').substr(0, 60) + std::string(40, 'b') + std::string(60, 'c'),
              srv.Data(accepted.get()));
    // The client's read time-out, set from this thread, runs on the window thread.
    ASSERT_EQ(1, client->SetTimeouts(80, 0, 0, 0));
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Count("read") >= 2; }, "two empty time-out deliveries"));
    for (const CommEvent& e : cli.Events())
        EXPECT_EQ(m_window->ThreadId(), e.nThread);
    // Three zeros don't stop the timer; at its expiry the object stays armed.
    ASSERT_EQ(1, client->SetTimeouts(0, 0, 0, 0));
    OnWindow([&] { ResetEvent(m_window->TimerDispatched()); });   // the zeros have been taken
    ASSERT_TRUE(WaitForHandle(m_window->TimerDispatched(), "the left-over timer's expiry"));
    ASSERT_EQ(1, accepted->Write("after", 5));
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Data(client.get()) == "after"; }, "data after a left-over timer"));
}

TEST_F(TransferTest, ReadErrorTextAndBufferChangeInsideOnReadComplete)
{
    Pair();
    std::string seen;
    srv.onRead = [&](const void* p, int n, CommPtr sp) {
        if (n > 0 && seen.empty()) {
            std::string before(static_cast<const char*>(p), n);
            sp->SetTimeouts(0, 0, 0, 5000);   // a larger buffer while this one is read
            seen = std::string(static_cast<const char*>(p), n) == before ? "intact" : "moved";
        }
    };
    ASSERT_EQ(1, client->Write("abc", 3));
    ASSERT_TRUE(srv.WaitFor([&] { return !srv.Data(accepted.get()).empty(); }, "first delivery"));
    OnWindow([] {});
    EXPECT_EQ("intact", seen);
    EXPECT_EQ(5100, TcpPeek::ReadBufferSize(accepted)) << "the new buffer took over after the delivery";
    EXPECT_EQ(5000, TcpPeek::BytesToRead(accepted));
    // A stale FD_READ with nothing to read is dropped before the read path.
    OnWindow([&] {
        SendMessageW(TcpPeek::Window(accepted), WM_WISOCKET_NOTIFY, (WPARAM)TcpPeek::Socket(accepted),
                     WSAMAKESELECTREPLY(FD_READ, 0));
    });
    EXPECT_FALSE(m_debug.Contains(L"CWiTcp::OnWiRead  8\n"));
    // An event with an error: the text, then OnError(READ), and the object stays.
    OnWindow([&] {
        SendMessageW(TcpPeek::Window(accepted), WM_WISOCKET_NOTIFY, (WPARAM)TcpPeek::Socket(accepted),
                     WSAMAKESELECTREPLY(FD_READ, WSAECONNRESET));
    });
    EXPECT_TRUE(m_debug.Contains(L"CWiTcp::OnWiRead\xFF08nErrorCode = 10054\xFF09\n"));
    EXPECT_TRUE(m_debug.Contains(L"CWiTcp::OnWiRead  5\n"));
    EXPECT_EQ("error:3:10054", srv.Kinds(accepted.get()).back());
    EXPECT_EQ(1, CWiComm::IsValidObject(accepted.get()));
}

// Close inside OnWriteComplete (the client) and inside OnReadComplete (the
// accepted object) is the object's last notification, and the buffer handed
// to OnReadComplete stays whole until it returns.
TEST_F(TransferTest, CloseInsideOnWriteOrOnReadCompleteIsTheLastNotification)
{
    Pair();
    client->SetUnpackingWhenWrite(1);
    cli.onWrite = [&](int, CommPtr sp) { sp->Close(); };
    std::string seen;
    srv.onRead = [&](const void* pData, int nLength, CommPtr sp) {
        sp->Close();
        // Blocks of the read buffer's size take its place if Close freed it.
        std::vector<char*> churn;
        for (int i = 0; i < 64; ++i) {
            churn.push_back(new char[1124]);
            memset(churn.back(), 0xEE, 1124);
        }
        seen.assign(static_cast<const char*>(pData), static_cast<size_t>(nLength));
        for (char* p : churn)
            delete[] p;
    };
    std::vector<char> data = Pattern(10000, 4);
    OnWindow([&] { client->Write(data.data(), 10000); });
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Count("close") == 1; }, "OnClose from the write"));
    EXPECT_EQ(std::vector<std::string>({"open", "write:4096", "close"}), cli.Kinds(client.get()));
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("close", accepted.get()) == 1; }, "OnClose from the read"));
    std::vector<std::string> kinds = srv.Kinds(accepted.get());
    ASSERT_EQ(3u, kinds.size());
    EXPECT_EQ("close", kinds[2]);
    OnWindow([] {});   // the read handler has returned
    EXPECT_EQ(std::string(data.begin(), data.begin() + seen.size()), seen) << "the delivered buffer was freed";
    EXPECT_EQ("read:" + std::to_string(seen.size()), kinds[1]);
    EXPECT_EQ(0, CWiComm::IsValidObject(accepted.get()));
}

TEST_F(TransferTest, PlainBlocksMergingUnpackingAndOverflow)
{
    Pair();
    std::vector<char> data = Pattern(10000, 2);
    OnWindow([&] {   // queued while the window thread can't send yet
        ASSERT_EQ(1, client->Write(data.data(), 10000));
        EXPECT_EQ(1u, TcpPeek::Queue(client).size()) << "one exact block";
        EXPECT_EQ(10000u, TcpPeek::QueuedBytes(client));
    });
    ASSERT_TRUE(cli.WaitFor([&] { return cli.WrittenBytes(client.get()) == 10000; }, "10000 written"));
    EXPECT_EQ(std::vector<int>{10000}, cli.Lengths("write", client.get()));
    client->SetUnpackingWhenWrite(1);
    OnWindow([&] {
        ASSERT_EQ(1, client->Write(data.data(), 10000));
        EXPECT_EQ(3u, TcpPeek::Queue(client).size());
        EXPECT_EQ(1808, TcpPeek::Queue(client).back().nLength);
        EXPECT_EQ(0, TcpPeek::Queue(client).back().bFirstBlock);
    });
    ASSERT_TRUE(cli.WaitFor([&] { return cli.WrittenBytes(client.get()) == 20000; }, "20000 written"));
    std::vector<int> lengths = cli.Lengths("write", client.get());
    EXPECT_EQ(std::vector<int>({10000, 4096, 4096, 1808}), lengths);
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Data(accepted.get()).size() == 20000; }, "20000 read"));
    EXPECT_EQ(0u, TcpPeek::QueuedBytes(client));
    // Overflow: at the limit a write is accepted, above it refused, or the queue cleared.
    client->SetMaxSendBufferSize(1000);
    int atLimit = 0, overLimit = 0, cleared = 0;
    size_t afterClear = 0;
    OnWindow([&] {   // nothing is sent while this runs
        client->Write(data.data(), 1000);
        atLimit = client->Write("y", 1);     // 1000 queued: accepted
        overLimit = client->Write("z", 1);   // 1001 queued: refused
        client->SetWriteOverFlowProcess(1);
        cleared = client->Write("w", 1);
        afterClear = TcpPeek::QueuedBytes(client);
    });
    EXPECT_EQ(1, atLimit);
    EXPECT_EQ(0, overLimit);
    EXPECT_EQ(1, cleared);
    EXPECT_EQ(1u, afterClear) << "earlier writes dropped, the new one queued";
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Data(accepted.get()).size() == 20001; }, "only the write after the clear"));
    EXPECT_EQ('w', srv.Data(accepted.get()).back());
}

// A message loop inside OnWriteComplete of a partial send dispatches the
// next FD_WRITE (and the peer's reads, which run on this thread too): the
// unsent rest leaves before a write made later.
TEST_F(TransferTest, MessageLoopInsideOnWriteCompleteKeepsTheWriteOrder)
{
    Pair();
    int sndbuf = 8192;
    setsockopt(TcpPeek::Socket(client), SOL_SOCKET, SO_SNDBUF, (char*)&sndbuf, sizeof(sndbuf));
    std::vector<char> first = Pattern(256 << 10, 5);
    const std::string second = "the second write";
    bool bPumped = false;
    TestEvent pumpEnded;   // the test's tasks for the window thread wait for the inner loop to end
    cli.onWrite = [&](int nSent, CommPtr sp) {
        if (bPumped || nSent >= (int)first.size())
            return;
        bPumped = true;
        sp->Write(second.data(), (unsigned long)second.size());
        EXPECT_TRUE(PumpUntil([&] { return srv.Data(accepted.get()).size() > (size_t)nSent; },
                              "the peer reading past the partial send"));
        pumpEnded.Set();
    };
    OnWindow([&] { client->Write(first.data(), (unsigned long)first.size()); });
    const size_t total = first.size() + second.size();
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Data(accepted.get()).size() == total; }, "both writes read"));
    ASSERT_TRUE(pumpEnded.Wait("the message loop inside OnWriteComplete (the first send was not partial?)"));
    ASSERT_TRUE(bPumped);
    EXPECT_TRUE(srv.Data(accepted.get()) == std::string(first.begin(), first.end()) + second)
        << "the writes arrived out of order";
}

// TLS: blocks of 4096 (8192 bytes make exactly two; the next write opens a
// third, and one more is appended to it); echo both ways, byte-exact.
TEST_F(TransferTest, TlsBlocksAndEchoBothWaysByteExact)
{
    srv.onRead = [](const void* p, int n, CommPtr sp) {
        if (n > 0)
            sp->Write(p, n);
    };
    Pair(1, 0);
    EXPECT_EQ(0u, Narrow(client->GetOpenOption()).find("C:"));
    std::vector<char> data = Pattern(1 << 20, 5);
    ASSERT_TRUE(m_window2->Run([&] {
        client->Write(data.data(), 8192);
        EXPECT_EQ(2u, TcpPeek::Queue(client).size()) << "8192 bytes: two blocks, no empty third";
        client->Write(data.data() + 8192, 1);
        EXPECT_EQ(3u, TcpPeek::Queue(client).size()) << "the last block began no write";
        client->Write(data.data() + 8193, 1);
        EXPECT_EQ(3u, TcpPeek::Queue(client).size()) << "appended to the block the last write opened";
    }));
    for (size_t off = 8194; off < data.size(); off += 100000)
        ASSERT_EQ(1, client->Write(data.data() + off, (unsigned long)std::min<size_t>(100000, data.size() - off)));
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Data(client.get()).size() >= data.size(); }, "1 MiB echoed",
                            std::chrono::seconds(20)));
    EXPECT_TRUE(cli.Data(client.get()) == std::string(data.begin(), data.end())) << "echo differs";
    EXPECT_EQ((long)data.size(), cli.WrittenBytes(client.get()));
    for (int n : cli.Lengths("write", client.get()))
        EXPECT_LE(n, 4096) << "TLS writes go in blocks of 4096";
}

// TLS peers that end badly. One that speaks plain: the accept's handshake
// fails, the application hears nothing and the object stays registered. One
// that closes TCP after the close alert, and one that closes TCP alone (data
// may have been cut off): only the second gives OnError(READ) before OnClose.
// And a TLS client of a plain server: "OpenSSL_connect failed", then OnClose.
TEST_F(TransferTest, TlsPeersThatEndBadly)
{
    listener = Listen(&srv, 1);
    ASSERT_TRUE(listener);
    SOCKET raw = ConnectLoopback(m_port);
    ASSERT_NE(INVALID_SOCKET, raw);
    send(raw, "GET / HTTP/1.0\r\n\r\n", 18, 0);
    ASSERT_TRUE(m_debug.WaitFor(L"OPENSSL_accept return null\n", 1, std::chrono::seconds(20)));
    closesocket(raw);
    OnWindow([] {});
    EXPECT_EQ(std::vector<std::string>{"open"}, srv.Kinds()) << "the application hears nothing of it";
    EXPECT_EQ(1u, TcpPeek::ActiveCount()) << "the object of the failed accept stayed registered";
    for (bool alert : {true, false}) {
        const int closes = srv.Count("close");
        raw = ConnectLoopback(m_port);
        ASSERT_NE(INVALID_SOCKET, raw);
        HSSL hSSL = OPENSSL_connect(raw);
        ASSERT_NE(0u, hSSL);
        ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("open") == closes + 2; }, "the accepted object opened"));
        CommPtr accepted = srv.LastOpened();
        if (alert)
            OPENSSL_shutdown(hSSL);
        closesocket(raw);
        ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("close") == closes + 1; }, "OnClose of the accepted"));
        std::vector<std::string> want = alert ? std::vector<std::string>{"open", "close"}
                                              : std::vector<std::string>{"open", "error:3:10054", "close"};
        EXPECT_EQ(want, srv.Kinds(accepted.get())) << (alert ? "clean close" : "truncated close");
        if (!alert)
            OPENSSL_shutdown(hSSL);
        OnWindow([&] { accepted->Close(); });
    }
    srv.Forget();
    Recorder& plainSrv = Rec();
    plainSrv.onOpen = [](CommPtr sp) {
        if (Narrow(sp->GetOpenOption()).find("C:") == 0)
            sp->Write("not tls at all\r\n", 16);
    };
    CommPtr plain = Listen(&plainSrv);
    ASSERT_TRUE(plain);
    client = Connect(&cli, 0, true);
    ASSERT_TRUE(client);
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Count("close") == 1; }, "OnClose after the failed handshake",
                            std::chrono::seconds(20)));
    EXPECT_TRUE(m_debug.Contains(L"OpenSSL_connect failed\n"));
    EXPECT_EQ(std::vector<std::string>{"close"}, cli.Kinds(client.get())) << "no OnOpen, no OnError";
}

}  // namespace
