// Certificates, trust and names: what the client accepts, and what it refuses
// with a TLS handle of 0.
#include <thread>

#include "openssl_peer.h"
#include "tls_harness.h"

#include "support/debug_capture.h"

namespace {

const wchar_t kHandshakeFailed[] = L"Sealkit: OPENSSL_connect: handshake failed: certificate verification failed";

// A server whose chain ends at a CA the client doesn't trust is refused
// (and sees the client's alert), unless SEALKIT_VERIFY is exactly "0": the
// one way to turn verification off.
TEST_F(SealkitTest, AnUntrustedServerIsRefusedUnlessVerifyIsZero)
{
    const wchar_t* verify[] = {nullptr, L"no", L"0"};
    for (const wchar_t* value : verify) {
        SCOPED_TRACE(value ? "SEALKIT_VERIFY set" : "SEALKIT_VERIFY unset");
        SetSetting(L"SEALKIT_CA", Files().otherCa.c_str());
        SetSetting(L"SEALKIT_VERIFY", value);
        Start();
        DebugCapture capture;
        {
            TlsPair pair;
            const bool off = value != nullptr && value[0] == L'0';
            EXPECT_EQ(off, pair.client != 0);
            EXPECT_EQ(off, pair.server != 0);
            EXPECT_EQ(off ? 0u : 1u, capture.StartingWith(kHandshakeFailed).size());
        }
        Stop();
    }
}

// The server's certificate is for localhost and 127.0.0.1 (not 127.0.0.2).
TEST_F(SealkitTest, TheCertificateMustBeForTheNameOrAddressOfThePeer)
{
    struct {
        const char* address;
        const wchar_t* fallback;     // SEALKIT_SERVER_NAME
        const wchar_t* registered;   // OPENSSL_expect_server_name for this peer
        bool ok;
    } cases[] = {
        {"127.0.0.1", nullptr, nullptr, true},                      // no name: the peer's address, in the certificate
        {"127.0.0.2", nullptr, nullptr, false},                     // no name, and the address isn't in it
        {"127.0.0.2", nullptr, L"localhost", true},                 // the application names this peer's host
        {"127.0.0.2", L"localhost", nullptr, true},                 // the process-wide fallback
        {"127.0.0.2", L"localhost", L"other.example", false},       // the peer's own name comes first
        {"127.0.0.1", L"other.example", nullptr, false},            // a wrong fallback
        {"127.0.0.1", L"127.0.0.1", nullptr, true},                 // an address as the name
    };
    for (auto& c : cases) {
        SetSetting(L"SEALKIT_SERVER_NAME", c.fallback);
        Start();
        {
            DebugCapture capture;
            SocketPair sockets(c.address);
            sockaddr_storage peer = {};
            int length = sizeof(peer);
            ASSERT_EQ(0, getpeername(sockets.client, (sockaddr*)&peer, &length)) << c.address;
            if (c.registered) {
                ASSERT_EQ(1, OPENSSL_expect_server_name((const sockaddr*)&peer, length, c.registered));
            }
            HSSL client = 0, server = 0;
            EXPECT_EQ(c.ok, Handshake(sockets, client, server)) << c.address << " expecting "
                                                                   << (c.registered ? "a registered name" : "no name");
            if (!c.ok) {
                EXPECT_EQ(1u, capture.StartingWith(L"Sealkit: OPENSSL_connect: handshake failed: the server's "
                                                   L"certificate is not for ").size());
            }
            if (client)
                OPENSSL_shutdown(client);
            if (server)
                OPENSSL_shutdown(server);
            OPENSSL_expect_server_name((const sockaddr*)&peer, length, nullptr);
        }
        Stop();
    }
    SetSetting(L"SEALKIT_SERVER_NAME", nullptr);
}

TEST_F(SealkitTest, WithoutCertificateFilesTheServerUsesAnEphemeralOne)
{
    SetSetting(L"SEALKIT_CERT", nullptr);
    SetSetting(L"SEALKIT_KEY", nullptr);
    const std::wstring notice =
        L"Sealkit: SEALKIT_CERT and SEALKIT_KEY are not set: the server uses an ephemeral self-signed certificate for \"localhost\"\n";
    DebugCapture capture;
    Start();
    {
        TlsPair pair;
        EXPECT_EQ(0u, pair.client) << "the test CA doesn't know the ephemeral certificate";
    }
    Start();   // a second owner
    {
        // A peer that checks nothing (OpenSSL itself) takes the ephemeral certificate.
        SocketPair sockets;
        HSSL server = 0;
        std::thread acceptor([&] { server = OPENSSL_accept(sockets.server); });
        EXPECT_TRUE(OpenSslClientHandshake(sockets.client, 0x0304, "ALL"));
        acceptor.join();
        EXPECT_NE(0u, server);
        if (server)
            OPENSSL_shutdown(server);
    }
    OPENSSL_uninit();
    EXPECT_EQ(1u, capture.Count(notice)) << "the ephemeral certificate is made once";
}

TEST_F(SealkitTest, UnreadableCertificateGivesNoServer)
{
    SetSetting(L"SEALKIT_CERT", L"C:\\no\\such\\file.pem");
    DebugCapture capture;
    Start();
    SocketPair sockets;
    EXPECT_EQ(0u, OPENSSL_accept(sockets.server));
    EXPECT_EQ(1u, capture.StartingWith(L"Sealkit: cannot load SEALKIT_CERT=C:\\no\\such\\file.pem").size());
    EXPECT_EQ(1u, capture.Count(L"Sealkit: OPENSSL_accept: no server context (OPENSSL_init(1) missing or failed)\n"));
}

}  // namespace

TEST_F(SealkitTest, AFailedInitKeepsTheSettingsThatWork)
{
    Start();
    DebugCapture capture;
    SetSetting(L"SEALKIT_CA", L"C:\\no\\such\\ca.pem");
    SetSetting(L"SEALKIT_SERVER_NAME", L"other.example");   // would refuse the server, if it were taken
    EXPECT_EQ(0, OPENSSL_init(0)) << "an unreadable CA file fails the init";
    SetSetting(L"SEALKIT_CERT", L"C:\\no\\such\\cert.pem");
    EXPECT_EQ(0, OPENSSL_init(1)) << "an unreadable certificate fails the init";
    {
        TlsPair pair;
        EXPECT_TRUE(pair.Ok()) << "both sides go on with the settings of the earlier init";
    }
    EXPECT_EQ(1u, capture.StartingWith(L"Sealkit: OPENSSL_init(0) failed: the client side keeps its previous settings").size());
    EXPECT_EQ(1u, capture.StartingWith(L"Sealkit: OPENSSL_init(1) failed: the server side keeps its previous settings").size());
    OPENSSL_uninit();   // the owner that the failed client init opened
    SetSetting(L"SEALKIT_SERVER_NAME", nullptr);
}

TEST_F(SealkitTest, MutualTlsIsOffByDefaultAndRequiredWithAClientCa)
{
    struct {
        const char* what;
        bool requireClients;   // SEALKIT_CLIENT_CA on the server side
        bool presentCert;      // SEALKIT_CLIENT_CERT/KEY on the client side
        bool ok;
    } cases[] = {
        {"off by default", false, false, true},
        {"required, and the client has none", true, false, false},
        {"required, and the client presents one", true, true, true},
    };
    for (auto& c : cases) {
        SetSetting(L"SEALKIT_CLIENT_CA", c.requireClients ? Files().ca.c_str() : nullptr);
        SetSetting(L"SEALKIT_CLIENT_CERT", c.presentCert ? Files().clientCert.c_str() : nullptr);
        SetSetting(L"SEALKIT_CLIENT_KEY", c.presentCert ? Files().clientKey.c_str() : nullptr);
        Start();
        {
            TlsPair pair;
            EXPECT_EQ(c.ok, pair.server != 0) << c.what;
        }
        Stop();
    }
}
