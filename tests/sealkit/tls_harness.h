// Helpers of the Sealkit tests: settings, socket pairs and handshakes between
// two threads.
#ifndef SEALKIT_TESTS_TLS_HARNESS_H
#define SEALKIT_TESTS_TLS_HARNESS_H

#include "support/net.h"
#include "support/test_pki.h"
#include "tls/tls_library.h"

#include <gtest/gtest.h>

// Sets (or, with null, removes) an environment variable for the next OPENSSL_init.
inline void SetSetting(const wchar_t* name, const wchar_t* value) { SetEnvironmentVariableW(name, value); }

// Two connected loopback TCP sockets, both blocking; closed at the end. The
// server side listens on address (any of 127.0.0.0/8).
struct SocketPair {
    explicit SocketPair(const char* address = "127.0.0.1");
    ~SocketPair();
    SOCKET client = INVALID_SOCKET;
    SOCKET server = INVALID_SOCKET;
};

// Runs connect and accept on two threads over the pair; false if either gives 0.
bool Handshake(SocketPair& sockets, HSSL& client, HSSL& server);

// A TLS connection over a SocketPair, shut down at the end.
struct TlsPair {
    TlsPair() { Handshake(sockets, client, server); }
    ~TlsPair();
    bool Ok() const { return client != 0 && server != 0; }
    SocketPair sockets;
    HSSL client = 0;
    HSSL server = 0;
};

// Each test starts with the test certificates and the test CA, and with no
// other settings; Start() makes the owner's pair of init calls.
class SealkitTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { Stop(); }
    void Start();
    void Stop();

private:
    bool m_started = false;
};

#endif
