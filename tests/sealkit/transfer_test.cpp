// Sealkit against peers that end badly or ask for more: the peer's close
// (clean or truncated), a reset, bad handles, a key update.
#include "openssl_peer.h"
#include "tls_harness.h"

#include <thread>

#include "support/debug_capture.h"
#include "support/leak.h"

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



// A clean close (close alert, then TCP) and a truncated one (TCP alone): the
// data comes out, then 0 once, then the later reads tell the two apart.
TEST_F(SealkitTest, PeerCloseGivesZeroOnceThenTellsACleanCloseFromATruncatedOne)
{
    Start();
    struct {
        bool alert;
        int later;        // result of the reads after the close
        int laterError;
    } cases[] = {{true, 0, WSAEDISCON}, {false, -1, WSAECONNRESET}};
    for (auto& c : cases) {
        TlsPair pair(false);
        ASSERT_TRUE(pair.Ok());
        std::vector<char> data = Pattern(50, 9), received;
        ASSERT_TRUE(WriteAll(pair.server, pair.sockets.server, data));
        if (c.alert) {
            OPENSSL_shutdown(pair.server);
            pair.server = 0;
            int optionValue = 0, optionSize = sizeof(optionValue);
            EXPECT_EQ(0, getsockopt(pair.sockets.server, SOL_SOCKET, SO_TYPE, (char*)&optionValue, &optionSize))
                << "OPENSSL_shutdown must leave the socket open";
        }
        shutdown(pair.sockets.server, SD_SEND);

        // The bytes before the close come out first, then the close itself.
        ASSERT_TRUE(ReadAll(pair.client, pair.sockets.client, received, 50));
        EXPECT_TRUE(received == data);
        char buffer[64];
        int n;
        while ((n = OPENSSL_read(pair.client, buffer, sizeof(buffer))) < 0 && WSAGetLastError() == WSAEWOULDBLOCK)
            ASSERT_TRUE(WaitSocket(pair.sockets.client, true)) << "the close never arrived";
        EXPECT_EQ(0, n);
        EXPECT_EQ(0, WSAGetLastError()) << "the read that meets the peer's close";
        for (int size : {(int)sizeof(buffer), 0}) {
            EXPECT_EQ(c.later, OPENSSL_read(pair.client, buffer, size)) << (c.alert ? "clean" : "truncated");
            EXPECT_EQ(c.laterError, WSAGetLastError()) << (c.alert ? "clean" : "truncated");
        }
    }
}

TEST_F(SealkitTest, BrokenConnectionGivesAHardErrorOnRead)
{
    Start();
    TlsPair pair(false);
    ASSERT_TRUE(pair.Ok());
    linger abort = {1, 0};
    setsockopt(pair.sockets.server, SOL_SOCKET, SO_LINGER, (const char*)&abort, sizeof(abort));
    closesocket(pair.sockets.server);   // a reset, without a close alert
    pair.sockets.server = INVALID_SOCKET;
    OPENSSL_shutdown(pair.server);      // its close alert can't go out any more
    pair.server = 0;

    char buffer[64];
    int n;
    while ((n = OPENSSL_read(pair.client, buffer, sizeof(buffer))) < 0 && WSAGetLastError() == WSAEWOULDBLOCK)
        ASSERT_TRUE(WaitSocket(pair.sockets.client, true)) << "the reset never arrived";
    int error = WSAGetLastError();
    EXPECT_GE(0, n);
    EXPECT_TRUE(error != 0 && error != WSAEWOULDBLOCK && error != WSAETIMEDOUT && error != ERROR_IO_PENDING)
        << "a reset must end the connection at once, last error " << error;
    EXPECT_EQ(-1, OPENSSL_write(pair.client, "x", 1));
    EXPECT_EQ(error, WSAGetLastError()) << "later calls repeat the failure";
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

    TlsPair pair(false);
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
    TlsPair later(false);
    ASSERT_TRUE(later.Ok());
    EXPECT_EQ(0, OPENSSL_shutdown(stale)) << "a stale handle shut a later connection down";
    EXPECT_EQ(1, OPENSSL_write(later.client, "y", 1));
}

}  // namespace

// A TLS 1.3 server that asks for a key update right after the handshake:
// the client reads through it (answering with its own update) and writes on.
TEST_F(SealkitTest, KeyUpdateFromThePeerIsReadThroughAndAnswered)
{
    Start();
    SocketPair sockets;
    std::string message = "after the key update";
    std::string cert(Files().serverCert.begin(), Files().serverCert.end());
    std::string key(Files().serverKey.begin(), Files().serverKey.end());
    bool serverOk = false;
    std::thread server([&] { serverOk = OpenSslServerWithKeyUpdate(sockets.server, cert.c_str(), key.c_str(), message); });
    HSSL client = OPENSSL_connect(sockets.client);
    ASSERT_NE(0u, client);
    std::vector<char> received;
    EXPECT_TRUE(ReadAll(client, sockets.client, received, message.size()));
    EXPECT_EQ(message, std::string(received.begin(), received.end()));
    EXPECT_TRUE(WriteAll(client, sockets.client, received));
    server.join();
    EXPECT_TRUE(serverOk) << "the server got its message back under the new keys";
    OPENSSL_shutdown(client);
}
