// A TLS client made with OpenSSL itself (kept apart from the Sealkit header:
// both libraries have an OPENSSL_init).
#ifndef SEALKIT_TESTS_OPENSSL_PEER_H
#define SEALKIT_TESTS_OPENSSL_PEER_H

#include <winsock2.h>

// A handshake over s offering at most maxVersion (a TLS*_VERSION value) and,
// up to TLS 1.2, only the suites named; true if it succeeded. The
// connection is dropped afterwards.
bool OpenSslClientHandshake(SOCKET s, int maxVersion, const char* suites);

#endif
