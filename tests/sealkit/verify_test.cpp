// Certificates, trust and names: what the client accepts, and what it refuses
// with a TLS handle of 0.
#include <thread>

#include "openssl_peer.h"
#include "tls_harness.h"

#include "support/debug_capture.h"

namespace {

// Trust, names and client certificates, one connection a row. The server's
// certificate is for localhost and 127.0.0.1 (not 127.0.0.2). A server whose
// chain ends at a CA the client doesn't trust is refused unless SEALKIT_VERIFY
// is exactly "0": the one way to turn verification off.
TEST_F(SealkitTest, TheClientAcceptsOnlyATrustedCertificateForThePeer)
{
    const wchar_t* untrusted = Files().otherCa.c_str();
    const wchar_t kNotTrusted[] = L"Sealkit: OPENSSL_connect: handshake failed: certificate verification failed";
    const wchar_t kNotForPeer[] = L"Sealkit: OPENSSL_connect: handshake failed: the server's certificate is not for ";
    struct {
        const char* what;
        const char* address;
        const wchar_t* ca;           // SEALKIT_CA (null: the test CA)
        const wchar_t* verify;       // SEALKIT_VERIFY
        const wchar_t* fallback;     // SEALKIT_SERVER_NAME
        const wchar_t* registered;   // OPENSSL_expect_server_name for this peer
        bool requireClientCert;      // SEALKIT_CLIENT_CA on the server side
        bool presentClientCert;      // SEALKIT_CLIENT_CERT/KEY on the client side
        bool ok;
        const wchar_t* failure;      // the client's text when it refuses
    } rows[] = {
        {"untrusted CA", "127.0.0.1", untrusted, nullptr, nullptr, nullptr, false, false, false, kNotTrusted},
        {"untrusted CA, VERIFY=no", "127.0.0.1", untrusted, L"no", nullptr, nullptr, false, false, false, kNotTrusted},
        {"untrusted CA, VERIFY=0", "127.0.0.1", untrusted, L"0", nullptr, nullptr, false, false, true, nullptr},
        {"no name: the peer's address, in the certificate", "127.0.0.1", nullptr, nullptr, nullptr, nullptr, false, false, true, nullptr},
        {"no name, and the address isn't in it", "127.0.0.2", nullptr, nullptr, nullptr, nullptr, false, false, false, kNotForPeer},
        {"the application names this peer's host", "127.0.0.2", nullptr, nullptr, nullptr, L"localhost", false, false, true, nullptr},
        {"the process-wide fallback", "127.0.0.2", nullptr, nullptr, L"localhost", nullptr, false, false, true, nullptr},
        {"the peer's own name comes first", "127.0.0.2", nullptr, nullptr, L"localhost", L"other.example", false, false, false, kNotForPeer},
        {"a wrong fallback", "127.0.0.1", nullptr, nullptr, L"other.example", nullptr, false, false, false, kNotForPeer},
        {"an address as the name", "127.0.0.1", nullptr, nullptr, L"127.0.0.1", nullptr, false, false, true, nullptr},
        {"client certificate required, none presented", "127.0.0.1", nullptr, nullptr, nullptr, nullptr, true, false, false, nullptr},
        {"client certificate required and presented", "127.0.0.1", nullptr, nullptr, nullptr, nullptr, true, true, true, nullptr},
    };
    for (auto& r : rows) {
        SCOPED_TRACE(r.what);
        SetSetting(L"SEALKIT_CA", r.ca ? r.ca : Files().ca.c_str());
        SetSetting(L"SEALKIT_VERIFY", r.verify);
        SetSetting(L"SEALKIT_SERVER_NAME", r.fallback);
        SetSetting(L"SEALKIT_CLIENT_CA", r.requireClientCert ? Files().ca.c_str() : nullptr);
        SetSetting(L"SEALKIT_CLIENT_CERT", r.presentClientCert ? Files().clientCert.c_str() : nullptr);
        SetSetting(L"SEALKIT_CLIENT_KEY", r.presentClientCert ? Files().clientKey.c_str() : nullptr);
        Start();
        {
            DebugCapture capture;
            SocketPair sockets(r.address);
            sockaddr_storage peer = {};
            int length = sizeof(peer);
            ASSERT_EQ(0, getpeername(sockets.client, (sockaddr*)&peer, &length));
            if (r.registered) {
                ASSERT_EQ(1, OPENSSL_expect_server_name((const sockaddr*)&peer, length, r.registered));
            }
            HSSL client = 0, server = 0;
            EXPECT_EQ(r.ok, Handshake(sockets, client, server));
            if (r.failure) {
                EXPECT_EQ(1u, capture.StartingWith(r.failure).size());
            }
            for (HSSL h : {client, server})
                if (h)
                    OPENSSL_shutdown(h);
            OPENSSL_expect_server_name((const sockaddr*)&peer, length, nullptr);
        }
        Stop();
    }
    UseTestCertificates();
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
