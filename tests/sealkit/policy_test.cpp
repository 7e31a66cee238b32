// The protocol policy, seen from a peer made with OpenSSL itself that offers
// only what the policy refuses (or, in two rows, what it takes).
#include <thread>

#include "openssl_peer.h"
#include "tls_harness.h"

TEST_F(SealkitTest, ServerRefusesOldVersionsAndSuitesWithoutForwardSecrecyOrAead)
{
    Start();
    const int kTls11 = 0x0302, kTls12 = 0x0303, kTls13 = 0x0304;
    struct {
        const char* what;
        int maxVersion;
        const char* suites;   // TLS 1.2 and below
        bool accepted;
    } cases[] = {
        {"TLS 1.1", kTls11, "ALL:@SECLEVEL=0", false},
        {"TLS 1.2, CBC suites only", kTls12, "ECDHE-ECDSA-AES128-SHA256:ECDHE-ECDSA-AES128-SHA", false},
        {"TLS 1.2, ECDHE with AES-GCM", kTls12, "ECDHE-ECDSA-AES128-GCM-SHA256", true},
        {"TLS 1.3", kTls13, "ECDHE-ECDSA-AES128-GCM-SHA256", true},
    };
    for (auto& c : cases) {
        SocketPair sockets;
        HSSL server = 0;
        std::thread acceptor([&] { server = OPENSSL_accept(sockets.server); });
        bool clientOk = OpenSslClientHandshake(sockets.client, c.maxVersion, c.suites);
        if (!clientOk)
            shutdown(sockets.client, SD_BOTH);   // the server must not wait for more
        acceptor.join();
        EXPECT_EQ(c.accepted, server != 0) << c.what;
        EXPECT_EQ(c.accepted, clientOk) << c.what;
        if (server)
            OPENSSL_shutdown(server);
    }
}
