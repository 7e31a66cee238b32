// The two OpenSSL contexts: the client's (mode 0) and the server's (mode 1).
#ifndef SEALKIT_CONTEXT_H
#define SEALKIT_CONTEXT_H

#include "sealkit_config.h"

#include <openssl/ssl.h>

namespace sealkit {

// TLS 1.2 at least, TLS 1.3 preferred, OpenSSL's default ciphers; trust from
// SEALKIT_CA or the Windows ROOT store; verification unless SEALKIT_VERIFY=0.
// Null on failure, with the reason in the debug output.
SSL_CTX* NewClientContext(const Config& config);

// The chain and key from SEALKIT_CERT and SEALKIT_KEY, or, with neither set,
// the process's ephemeral self-signed certificate for "localhost".
// Null on failure, with the reason in the debug output.
SSL_CTX* NewServerContext(const Config& config);

// Frees the ephemeral certificate and key, if made; the next server context
// without files makes a new pair.
void ReleaseEphemeralIdentity();

// The first OpenSSL error of this thread as text (and clears the queue).
std::wstring TakeOpenSslError();

}  // namespace sealkit

#endif
