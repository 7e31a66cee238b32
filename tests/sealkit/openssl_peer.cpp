#include "openssl_peer.h"

#include <openssl/ssl.h>

bool OpenSslClientHandshake(SOCKET s, int maxVersion, const char* suites)
{
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    if (!ctx)
        return false;
    SSL_CTX_set_security_level(ctx, 0);
    SSL_CTX_set_min_proto_version(ctx, TLS1_VERSION);
    SSL_CTX_set_max_proto_version(ctx, maxVersion);
    bool ok = false;
    if (SSL_CTX_set_cipher_list(ctx, suites) == 1) {
        SSL* ssl = SSL_new(ctx);
        SSL_set_fd(ssl, (int)s);
        ok = SSL_connect(ssl) == 1;
        SSL_free(ssl);
    }
    SSL_CTX_free(ctx);
    return ok;
}
