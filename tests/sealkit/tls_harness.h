// Helpers of the Sealkit tests: settings, socket pairs, handshakes between two
// threads, and transfers that wait out would-block with select().
#ifndef SEALKIT_TESTS_TLS_HARNESS_H
#define SEALKIT_TESTS_TLS_HARNESS_H

#include "support/net.h"
#include "support/test_pki.h"
#include "tls/tls_library.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Sets (or, with null, removes) an environment variable for the next OPENSSL_init.
void SetSetting(const wchar_t* name, const wchar_t* value);

// Two connected loopback TCP sockets, both blocking; closed at the end. The
// server side listens on address (any of 127.0.0.0/8).
struct SocketPair {
    explicit SocketPair(const char* address = "127.0.0.1");
    ~SocketPair();
    void SetBlocking(bool blocking);
    SOCKET client = INVALID_SOCKET;
    SOCKET server = INVALID_SOCKET;
};

// A TLS connection over a SocketPair: the server's accept runs on its own thread.
struct TlsPair {
    explicit TlsPair(bool blocking = true);
    ~TlsPair();   // shuts down what is still open
    bool Ok() const { return client != 0 && server != 0; }
    SocketPair sockets;
    HSSL client = 0;
    HSSL server = 0;
};

// Runs connect and accept on two threads over the pair; false if either gives 0.
bool Handshake(SocketPair& sockets, HSSL& client, HSSL& server);

// Waits (select) until the socket is readable or writable; false after 10 s.
bool WaitSocket(SOCKET s, bool forRead);

// Writes all bytes through the handle; on would-block waits and offers the rest again.
::testing::AssertionResult WriteAll(HSSL h, SOCKET s, const std::vector<char>& data);
// Reads exactly size bytes through the handle.
::testing::AssertionResult ReadAll(HSSL h, SOCKET s, std::vector<char>& data, size_t size);

std::vector<char> Pattern(size_t size, unsigned seed);

// Each test starts with the test certificates and the test CA, and with no
// other settings; Start() makes the owner's pair of init calls.
class SealkitTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    void Start();
    void Stop();

private:
    bool m_started = false;
};

#endif
