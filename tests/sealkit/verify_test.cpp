// Certificates, trust and names: what the client accepts, and what it refuses
// with a TLS handle of 0.
#include "tls_harness.h"

#include "support/debug_capture.h"

namespace {

const wchar_t kHandshakeFailed[] = L"Sealkit: OPENSSL_connect: handshake failed: certificate verification failed";

TEST_F(SealkitTest, ServerSignedByAnotherCaIsRefused)
{
    SetSetting(L"SEALKIT_CA", Files().otherCa.c_str());
    Start();
    DebugCapture capture;
    SocketPair sockets;
    HSSL client = 0, server = 0;
    EXPECT_FALSE(Handshake(sockets, client, server));
    EXPECT_EQ(0u, client) << "a chain to an untrusted CA";
    EXPECT_EQ(0u, server) << "the server sees the client's alert";
    EXPECT_EQ(1u, capture.StartingWith(kHandshakeFailed).size());
    if (client) OPENSSL_shutdown(client);
    if (server) OPENSSL_shutdown(server);
}

TEST_F(SealkitTest, VerifyZeroLetsAnUntrustedServerThrough)
{
    SetSetting(L"SEALKIT_CA", Files().otherCa.c_str());
    SetSetting(L"SEALKIT_VERIFY", L"0");
    Start();
    TlsPair pair;
    EXPECT_TRUE(pair.Ok());
}

TEST_F(SealkitTest, OnlyZeroTurnsVerificationOff)
{
    SetSetting(L"SEALKIT_CA", Files().otherCa.c_str());
    SetSetting(L"SEALKIT_VERIFY", L"no");
    Start();
    TlsPair pair;
    EXPECT_EQ(0u, pair.client);
}

TEST_F(SealkitTest, ServerNameIsCheckedAgainstTheCertificate)
{
    SetSetting(L"SEALKIT_SERVER_NAME", L"other.example");
    Start();
    {
        DebugCapture capture;
        TlsPair wrong;
        EXPECT_EQ(0u, wrong.client) << "the certificate is for localhost";
        EXPECT_EQ(1u, capture.StartingWith(kHandshakeFailed).size());
    }
    Stop();
    for (const wchar_t* name : {L"localhost", L"127.0.0.1"}) {
        SetSetting(L"SEALKIT_SERVER_NAME", name);
        Start();
        TlsPair right;
        EXPECT_TRUE(right.Ok()) << "SEALKIT_SERVER_NAME matching the certificate";
        Stop();
    }
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
    SetSetting(L"SEALKIT_VERIFY", L"0");
    SetSetting(L"SEALKIT_SERVER_NAME", L"localhost");
    Start();   // a second owner, with the new settings
    {
        TlsPair pair;
        EXPECT_TRUE(pair.Ok());
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
