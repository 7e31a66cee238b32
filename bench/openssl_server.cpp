// The TLS reference: the echo server a user would write with OpenSSL itself
// (the same static OpenSSL 3 that Sealkit uses) instead of wisock: blocking
// sockets, one thread per connection, SSL_read and SSL_write. It shows the
// certificate and key that SEALKIT_CERT and SEALKIT_KEY name.
// Usage: bench_openssl_server --port P [--seconds T]
#include <winsock2.h>
#include <windows.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench_args.h"

namespace {

SSL_CTX* g_ctx = nullptr;

DWORD WINAPI Serve(void* p)
{
    SOCKET s = reinterpret_cast<SOCKET>(p);
    int one = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&one), sizeof(one));
    SSL* ssl = SSL_new(g_ctx);
    SSL_set_fd(ssl, static_cast<int>(s));
    if (SSL_accept(ssl) == 1) {
        std::vector<char> buf(65536);
        for (;;) {
            int n = SSL_read(ssl, buf.data(), static_cast<int>(buf.size()));
            if (n <= 0 || SSL_write(ssl, buf.data(), n) != n)
                break;
        }
        SSL_shutdown(ssl);
    }
    SSL_free(ssl);
    closesocket(s);
    return 0;
}

DWORD WINAPI AcceptLoop(void* p)
{
    SOCKET listener = reinterpret_cast<SOCKET>(p);
    for (;;) {
        SOCKET s = accept(listener, NULL, NULL);
        if (s == INVALID_SOCKET)
            return 0;
        CloseHandle(CreateThread(NULL, 0, Serve, reinterpret_cast<void*>(s), 0, NULL));
    }
}

}  // namespace

int main(int argc, char** argv)
{
    BenchArgs args{argc, argv};
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
    const char* cert = std::getenv("SEALKIT_CERT");
    const char* key = std::getenv("SEALKIT_KEY");
    g_ctx = SSL_CTX_new(TLS_server_method());
    if (!cert || !key || SSL_CTX_use_certificate_chain_file(g_ctx, cert) != 1 ||
        SSL_CTX_use_PrivateKey_file(g_ctx, key, SSL_FILETYPE_PEM) != 1) {
        std::fprintf(stderr, "bench_openssl_server: SEALKIT_CERT and SEALKIT_KEY must name a certificate and its key\n");
        return 2;
    }
    SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<u_short>(args.Number("--port", 0)));
    int len = sizeof(a);
    if (bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(listener, SOMAXCONN) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        std::fprintf(stderr, "bench_openssl_server: bind/listen failed: %d\n", WSAGetLastError());
        return 1;
    }
    CloseHandle(CreateThread(NULL, 0, AcceptLoop, reinterpret_cast<void*>(listener), 0, NULL));
    std::printf("listening on %u\n", ntohs(a.sin_port));
    std::fflush(stdout);
    Sleep(static_cast<DWORD>(args.Number("--seconds", 10) * 1000));
    PrintProcessCpu();
    ExitProcess(0);
}
