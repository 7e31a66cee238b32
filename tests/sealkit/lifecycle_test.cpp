// Owners, bounds and threads: repeated init and uninit, handshakes that can't
// finish, and many connections at once.
#include "tls_harness.h"

#include "support/debug_capture.h"
#include "support/leak.h"
#include "support/wait.h"

#include <thread>

namespace {

const wchar_t kStillOpen[] = L"Sealkit: 1 TLS handles still open at the last OPENSSL_uninit\n";

// A plain peer that sends bytes that aren't TLS, or nothing at all.
void HandshakeAgainstRawPeer(bool clientSide, const char* garbage, DWORD boundMs)
{
    SocketPair sockets;
    SOCKET tls = clientSide ? sockets.client : sockets.server;
    SOCKET raw = clientSide ? sockets.server : sockets.client;
    if (garbage)
        send(raw, garbage, (int)strlen(garbage), 0);
    ULONGLONG start = GetTickCount64();
    HSSL h = clientSide ? OPENSSL_connect(tls) : OPENSSL_accept(tls);
    ULONGLONG took = GetTickCount64() - start;
    EXPECT_EQ(0u, h) << (garbage ? "garbage" : "a silent peer");
    EXPECT_LT(took, boundMs + 2000u) << "the handshake outlived its bound";
    if (!garbage) {
        EXPECT_GE(took + 50, boundMs) << "gave up before the bound";
    }
    if (h)
        OPENSSL_shutdown(h);
}

TEST_F(SealkitTest, HandshakeWithGarbageOrSilenceEndsWithinTheBound)
{
    SetSetting(L"SEALKIT_HANDSHAKE_TIMEOUT_MS", L"300");
    Start();
    LeakBaseline baseline;
    DebugCapture capture;
    const char* garbage = "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
    for (bool clientSide : {false, true}) {
        HandshakeAgainstRawPeer(clientSide, garbage, 300);
        HandshakeAgainstRawPeer(clientSide, nullptr, 300);   // blocking socket, silent peer
    }
    SocketPair nonBlocking;
    nonBlocking.SetBlocking(false);
    EXPECT_EQ(0u, OPENSSL_accept(nonBlocking.server)) << "a silent peer on a non-blocking socket";
    EXPECT_EQ(2u, capture.StartingWith(L"Sealkit: OPENSSL_accept: handshake failed: no progress within 300 ms").size());
    Stop();
    EXPECT_FALSE(capture.Contains(kStillOpen));
    EXPECT_TRUE(baseline.Check("failed handshakes"));
}

TEST_F(SealkitTest, OwnersComeAndGoWhileHandlesWork)
{
    // Three owners, each with its own init pair and uninit, on three threads.
    for (int round = 0; round < 3; ++round) {
        std::vector<std::thread> owners;
        for (int i = 0; i < 3; ++i)
            owners.emplace_back([] {
                OPENSSL_init(0);
                OPENSSL_init(1);
            });
        for (std::thread& t : owners)
            t.join();
        TlsPair pair;
        ASSERT_TRUE(pair.Ok()) << "round " << round << " with three owners";
        OPENSSL_uninit();
        OPENSSL_uninit();
        TlsPair stillUp;
        EXPECT_TRUE(stillUp.Ok()) << "one owner is left";
        OPENSSL_uninit();
        DebugCapture capture;
        HSSL none = OPENSSL_connect(pair.sockets.client);
        EXPECT_EQ(0u, none) << "no owner is left";
        EXPECT_TRUE(capture.Contains(L"Sealkit: OPENSSL_connect: no client context (OPENSSL_init(0) missing or failed)\n"));
    }
}

TEST_F(SealkitTest, HandleOpenAtTheLastUninitIsReportedAndStillWorks)
{
    Start();
    TlsPair pair;
    ASSERT_TRUE(pair.Ok());
    OPENSSL_shutdown(pair.server);
    pair.server = 0;
    DebugCapture capture;
    Stop();
    EXPECT_EQ(1u, capture.Count(kStillOpen));
    EXPECT_EQ(1, OPENSSL_write(pair.client, "x", 1)) << "the handle outlives its context";
}

TEST_F(SealkitTest, ManyHandshakesAndTransfersInParallel)
{
    Start();
    const int kPairs = 12;
    std::vector<std::thread> threads;
    EventCounter done;
    for (int i = 0; i < kPairs; ++i)
        threads.emplace_back([i, &done] {
            TlsPair pair(i % 2 == 0);
            if (!pair.Ok())
                return;
            std::vector<char> sent = Pattern(64 << 10, i), received;
            std::thread reader([&] { ReadAll(pair.server, pair.sockets.server, received, sent.size()); });
            bool written = WriteAll(pair.client, pair.sockets.client, sent);
            reader.join();
            if (written && received == sent)
                done.Add();
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(kPairs, done.Get()) << "pairs that shook hands and moved 64 KiB intact";
}

}  // namespace
