// One TLS connection over a caller's socket: the object behind a TLS handle.
#ifndef SEALKIT_CONNECTION_H
#define SEALKIT_CONNECTION_H

#include "sealkit_config.h"
#include "sealkit_link.h"

#include <openssl/ssl.h>

#include <string>

namespace sealkit {

class Connection {
public:
    // Runs the whole handshake on socket within config.handshakeTimeoutMs.
    // Null on failure, with the reason in the debug output.
    static Connection* Open(SOCKET socket, SSL_CTX* ctx, bool server, const Config& config);
    ~Connection();

    // Each sets the thread's Winsock last error as the callers read it.
    int Read(void* buffer, int size);
    int Write(const void* buffer, int size);
    int Pending();
    // Sends a close alert if it fits into the socket now; waits for nothing.
    void Shutdown();

    static long LiveCount();

private:
    Connection(SOCKET socket);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool Attach(SSL_CTX* ctx, bool server, const Config& config);
    bool Handshake(DWORD timeoutMs);
    std::wstring HandshakeFailure(DWORD timeoutMs) const;
    int Probe();
    int Failure(int result);
    int PeerClosed();
    int Broken(int error);

    SSL* m_ssl = nullptr;
    Link m_link;
    bool m_peerClosed = false;   // the peer's close has been reported once
    bool m_truncated = false;    // ... and it came without a TLS close alert
    int m_brokenError = 0;       // sticky: the connection can't carry data any more
    std::string m_serverName;    // client: what the server's certificate must be for
};

}  // namespace sealkit

#endif
