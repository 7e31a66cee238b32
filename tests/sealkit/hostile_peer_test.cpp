// Sealkit against peers that send garbage or nothing, and against bad handles.
#include "tls_harness.h"

#include "support/debug_capture.h"
#include "support/leak.h"

namespace {

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
    u_long on = 1;
    ioctlsocket(nonBlocking.server, FIONBIO, &on);
    EXPECT_EQ(0u, OPENSSL_accept(nonBlocking.server)) << "a silent peer on a non-blocking socket";
    EXPECT_EQ(2u, capture.StartingWith(L"Sealkit: OPENSSL_accept: handshake failed: no progress within 300 ms").size());
    Stop();
    EXPECT_FALSE(capture.Contains(L"Sealkit: 1 TLS handles still open at the last OPENSSL_uninit\n"));
    EXPECT_TRUE(baseline.Check("failed handshakes"));
}

TEST_F(SealkitTest, BadHandlesAndArgumentsFailClearly)
{
    Start();
    char buffer[8];
    EXPECT_EQ(-1, OPENSSL_read(0, buffer, sizeof(buffer)));
    EXPECT_EQ(WSAEINVAL, WSAGetLastError());
    EXPECT_EQ(-1, OPENSSL_write(0, buffer, sizeof(buffer)));
    EXPECT_EQ(WSAEINVAL, WSAGetLastError());
    EXPECT_EQ(0, OPENSSL_pending(0));

    TlsPair pair;
    ASSERT_TRUE(pair.Ok());
    EXPECT_EQ(-1, OPENSSL_write(pair.client, buffer, -1));
    EXPECT_EQ(WSAEINVAL, WSAGetLastError());
    HSSL stale = pair.client;
    OPENSSL_shutdown(pair.client);
    pair.client = 0;
    EXPECT_EQ(-1, OPENSSL_read(stale, buffer, sizeof(buffer))) << "a handle already shut down";
    EXPECT_EQ(WSAEINVAL, WSAGetLastError());
    EXPECT_EQ(0, OPENSSL_shutdown(stale)) << "a second shutdown of one handle";
    // Later connections take the freed memory: the stale handle must not reach them.
    TlsPair later;
    ASSERT_TRUE(later.Ok());
    EXPECT_EQ(0, OPENSSL_shutdown(stale)) << "a stale handle shut a later connection down";
    EXPECT_EQ(1, OPENSSL_write(later.client, "y", 1));
}

}  // namespace
