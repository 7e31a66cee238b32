// Handshakes and data: byte-exact transfers both ways, would-block and partial
// writes, reads of size 0, the library's pending bytes, the peer's close.
#include "openssl_peer.h"
#include "tls_harness.h"

#include <thread>

namespace {

// Sends size bytes from one end to the other on two threads and compares them.
void Transfer(TlsPair& pair, bool toServer, size_t size)
{
    HSSL writer = toServer ? pair.client : pair.server;
    HSSL reader = toServer ? pair.server : pair.client;
    SOCKET writeSocket = toServer ? pair.sockets.client : pair.sockets.server;
    SOCKET readSocket = toServer ? pair.sockets.server : pair.sockets.client;
    std::vector<char> sent = Pattern(size, (unsigned)size), received;
    ::testing::AssertionResult written = ::testing::AssertionSuccess();
    std::thread sender([&] { written = WriteAll(writer, writeSocket, sent); });
    EXPECT_TRUE(ReadAll(reader, readSocket, received, size)) << size << " bytes";
    sender.join();
    EXPECT_TRUE(written) << size << " bytes";
    EXPECT_TRUE(received == sent) << "the " << size << " bytes arrived changed";
}

class SealkitTransfer : public SealkitTest, public ::testing::WithParamInterface<bool> {};

TEST_P(SealkitTransfer, HandshakesAndMovesBytesExactlyBothWays)
{
    Start();
    bool blocking = GetParam();
    TlsPair pair(blocking);
    ASSERT_TRUE(pair.Ok()) << (blocking ? "blocking" : "non-blocking") << " sockets";
    for (size_t size : {(size_t)1, (size_t)16385, (size_t)8 << 20}) {
        Transfer(pair, true, size);
        Transfer(pair, false, size);
    }
}

INSTANTIATE_TEST_SUITE_P(Sockets, SealkitTransfer, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Blocking" : "NonBlocking";
                         });

TEST_F(SealkitTest, FullSocketBufferGivesPartialWritesThenWouldBlock)
{
    Start();
    TlsPair pair(false);
    ASSERT_TRUE(pair.Ok());
    const size_t size = 16 << 20;
    std::vector<char> sent = Pattern(size, 7);
    size_t done = 0;
    bool partial = false;
    int result = 0, error = 0;
    // Nobody reads yet: the socket buffers fill up.
    while ((result = OPENSSL_write(pair.client, sent.data() + done, (int)(size - done))) > 0) {
        ASSERT_EQ(0, WSAGetLastError()) << "a successful write must leave last error 0";
        partial = partial || (size_t)result < size - done;
        done += result;
        ASSERT_LT(done, size) << "16 MiB went out with nobody reading";
    }
    error = WSAGetLastError();
    EXPECT_EQ(-1, result);
    EXPECT_EQ(WSAEWOULDBLOCK, error);
    EXPECT_TRUE(partial) << "no write took fewer bytes than offered before the would-block";
    EXPECT_EQ(-1, OPENSSL_write(pair.client, sent.data() + done, (int)(size - done)));
    EXPECT_EQ(WSAEWOULDBLOCK, WSAGetLastError()) << "a second offer while still full";

    // Drain on another thread; offer the rest again from where the writes stopped.
    std::vector<char> received;
    std::thread reader([&] { EXPECT_TRUE(ReadAll(pair.server, pair.sockets.server, received, size)); });
    std::vector<char> rest(sent.begin() + done, sent.end());
    EXPECT_TRUE(WriteAll(pair.client, pair.sockets.client, rest));
    reader.join();
    EXPECT_TRUE(received == sent) << "bytes were lost or doubled around the would-block";
}

TEST_F(SealkitTest, ReadOfSizeZeroStoresNothingAndTakesInWhatArrived)
{
    Start();
    TlsPair pair(false);
    ASSERT_TRUE(pair.Ok());
    char buffer[256];
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_GE(0, OPENSSL_read(pair.client, buffer, 0));
    EXPECT_EQ(WSAEWOULDBLOCK, WSAGetLastError()) << "nothing had arrived";
    EXPECT_EQ(0, OPENSSL_pending(pair.client));

    std::vector<char> data = Pattern(100, 3);
    ASSERT_TRUE(WriteAll(pair.server, pair.sockets.server, data));
    ASSERT_TRUE(WaitSocket(pair.sockets.client, true));
    EXPECT_GE(0, OPENSSL_read(pair.client, buffer, 0));
    EXPECT_EQ(0, WSAGetLastError()) << "100 bytes were waiting";
    EXPECT_EQ(100, OPENSSL_pending(pair.client)) << "the size-0 read should have taken the record in";
    EXPECT_EQ('x', buffer[0]) << "a read of size 0 stored something";
    EXPECT_EQ(100, OPENSSL_read(pair.client, buffer, sizeof(buffer)));
    EXPECT_EQ(0, memcmp(buffer, data.data(), 100));
}

TEST_F(SealkitTest, PendingShowsTheRestOfALargeRecord)
{
    Start();
    TlsPair pair(false);
    ASSERT_TRUE(pair.Ok());
    std::vector<char> data = Pattern(16000, 5), received;
    ASSERT_TRUE(WriteAll(pair.server, pair.sockets.server, data));
    ASSERT_TRUE(ReadAll(pair.client, pair.sockets.client, received, 100));
    EXPECT_EQ(15900, OPENSSL_pending(pair.client));
    std::vector<char> rest(15900);
    EXPECT_EQ(15900, OPENSSL_read(pair.client, rest.data(), 15900)) << "pending bytes come without the socket";
    received.insert(received.end(), rest.begin(), rest.end());
    EXPECT_TRUE(received == data);
    EXPECT_EQ(0, OPENSSL_pending(pair.client));
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
