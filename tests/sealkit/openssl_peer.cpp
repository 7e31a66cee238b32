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

bool OpenSslServerWithKeyUpdate(SOCKET s, const char* certFile, const char* keyFile, const std::string& message)
{
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx)
        return false;
    SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
    bool ok = SSL_CTX_use_certificate_chain_file(ctx, certFile) == 1 &&
              SSL_CTX_use_PrivateKey_file(ctx, keyFile, SSL_FILETYPE_PEM) == 1;
    SSL* ssl = ok ? SSL_new(ctx) : nullptr;
    if (ssl) {
        SSL_set_fd(ssl, (int)s);
        ok = SSL_accept(ssl) == 1 && SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED) == 1 &&
             SSL_write(ssl, message.data(), (int)message.size()) == (int)message.size();
        std::string back(message.size(), '\0');
        size_t got = 0;
        while (ok && got < back.size()) {
            int n = SSL_read(ssl, &back[got], (int)(back.size() - got));
            ok = n > 0;
            if (ok)
                got += (size_t)n;
        }
        ok = ok && back == message;
        SSL_free(ssl);
    }
    SSL_CTX_free(ctx);
    return ok;
}
