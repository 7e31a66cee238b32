#include "sealkit_connection.h"

#include "sealkit_context.h"
#include "sealkit_names.h"
#include "sealkit_trace.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <atomic>

namespace sealkit {

namespace {

std::atomic<long> g_live(0);

// Keeps a blocking send() of the handshake within its bound (a non-blocking
// socket ignores SO_SNDTIMEO); puts the caller's value back afterwards.
class SendTimeoutScope {
public:
    SendTimeoutScope(SOCKET socket, DWORD timeoutMs) : m_socket(socket)
    {
        int size = sizeof(m_saved);
        m_restore = getsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, (char*)&m_saved, &size) == 0 &&
                    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, (const char*)&timeoutMs, sizeof(timeoutMs)) == 0;
    }
    ~SendTimeoutScope()
    {
        if (m_restore)
            setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, (const char*)&m_saved, sizeof(m_saved));
    }

private:
    SOCKET m_socket;
    DWORD m_saved = 0;
    bool m_restore = false;
};

bool IsIpAddress(const std::string& name)
{
    sockaddr_storage address;
    int size = sizeof(address);
    std::wstring wide = Widen(name.c_str());
    return WSAStringToAddressW(&wide[0], AF_INET, nullptr, (sockaddr*)&address, &size) == 0 ||
           (size = sizeof(address), WSAStringToAddressW(&wide[0], AF_INET6, nullptr, (sockaddr*)&address, &size) == 0);
}

// The client checks the certificate against a name and sends it as SNI (an
// IP address is checked as one and not sent: SNI carries names only).
bool CheckServerName(SSL* ssl, const std::string& name)
{
    if (IsIpAddress(name))
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str()) == 1;
    return SSL_set_tlsext_host_name(ssl, name.c_str()) == 1 && SSL_set1_host(ssl, name.c_str()) == 1;
}

// The name the server's certificate must be for: the one the application
// named for this peer, else SEALKIT_SERVER_NAME, else the peer's IP address.
// Empty only for a socket without a peer (the handshake then fails).
std::string ServerNameFor(SOCKET socket, const Config& config)
{
    std::string peerText;
    std::wstring name = ExpectedServerName(socket, peerText);
    if (name.empty())
        name = config.serverName;
    return name.empty() ? peerText : ToUtf8(name);
}

}  // namespace

Connection::Connection(SOCKET socket)
{
    m_link.socket = socket;
    ++g_live;
}

Connection::~Connection()
{
    SSL_free(m_ssl);   // frees the BIO too; the socket stays open
    --g_live;
}

long Connection::LiveCount()
{
    return g_live.load();
}

Connection* Connection::Open(SOCKET socket, SSL_CTX* ctx, bool server, const Config& config)
{
    const wchar_t* side = server ? L"OPENSSL_accept" : L"OPENSSL_connect";
    Connection* connection = new Connection(socket);
    if (!connection->Attach(ctx, server, config)) {
        Trace(L"Sealkit: %s: cannot set up the connection: %s\n", side, TakeOpenSslError().c_str());
        delete connection;
        return nullptr;
    }
    if (!connection->Handshake(config.handshakeTimeoutMs)) {
        Trace(L"Sealkit: %s: handshake failed: %s\n", side, connection->HandshakeFailure(config.handshakeTimeoutMs).c_str());
        delete connection;
        return nullptr;
    }
    return connection;
}

bool Connection::Attach(SSL_CTX* ctx, bool server, const Config& config)
{
    ERR_clear_error();
    m_ssl = SSL_new(ctx);
    BIO* bio = m_ssl ? NewLinkBio(&m_link) : nullptr;
    if (!bio)
        return false;
    SSL_set_bio(m_ssl, bio, bio);
    if (server) {
        SSL_set_accept_state(m_ssl);
        return true;
    }
    SSL_set_connect_state(m_ssl);
    if (!config.verifyPeer)
        return true;
    // Fail closed: a certificate is checked against a name (or address) always.
    m_serverName = ServerNameFor(m_link.socket, config);
    return !m_serverName.empty() && CheckServerName(m_ssl, m_serverName);
}

bool Connection::Handshake(DWORD timeoutMs)
{
    m_link.mode = LinkMode::Handshake;
    m_link.deadline = GetTickCount64() + timeoutMs;
    SendTimeoutScope sendTimeout(m_link.socket, timeoutMs);
    for (;;) {
        int result = SSL_do_handshake(m_ssl);
        if (result == 1)
            break;
        int error = SSL_get_error(m_ssl, result);
        bool retry = (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) && m_link.socketError == 0 &&
                     GetTickCount64() < m_link.deadline;
        if (!retry)
            return false;
    }
    m_link.mode = LinkMode::Data;
    ERR_clear_error();
    return true;
}

std::wstring Connection::HandshakeFailure(DWORD timeoutMs) const
{
    wchar_t text[128];
    if (m_link.socketError == WSAETIMEDOUT) {
        _snwprintf(text, 127, L"no progress within %lu ms", (unsigned long)timeoutMs);
        text[127] = L'\0';
        return text;
    }
    long verify = SSL_get_verify_result(m_ssl);
    if (verify == X509_V_ERR_HOSTNAME_MISMATCH || verify == X509_V_ERR_IP_ADDRESS_MISMATCH)
        return L"the server's certificate is not for " + Widen(m_serverName.c_str()) +
               L"; name the host of this peer with OPENSSL_expect_server_name before connecting, "
               L"or set SEALKIT_SERVER_NAME";
    if (verify != X509_V_OK)
        return L"certificate verification failed: " + Widen(X509_verify_cert_error_string(verify));
    if (m_link.socketError != 0) {
        _snwprintf(text, 127, L"socket error %d", m_link.socketError);
        text[127] = L'\0';
        return text;
    }
    if (m_link.eof)
        return L"the peer closed the connection";
    return TakeOpenSslError();
}

// ---- data ------------------------------------------------------------------
//
// What the last error says after a failed read or write, against the ways the
// callers tell read outcomes apart (would-block 10035; soft: 997, 10060, 0;
// anything else ends the connection at once):
// - would-block: WSAEWOULDBLOCK.
// - the peer's close (a close alert, or TCP closed without one): result 0 with
//   last error 0 the first time. A caller collecting a burst of reads then
//   still delivers the bytes read before the close in that burst (a hard
//   error would throw them away), and ends the connection on the FD_CLOSE
//   that comes with the peer's close. Every later read gives WSAEDISCON, a
//   hard error, so a caller that reads on ends it at once.
// - a broken connection: the socket's own error (WSAECONNRESET,
//   WSAECONNABORTED, ...), hard, and every later call repeats it.
// - a TLS protocol failure (bad record, fatal alert): WSAECONNABORTED, hard.

int Connection::Read(void* buffer, int size)
{
    if (m_brokenError != 0)
        return Broken(m_brokenError);
    if (m_peerClosed) {
        // A close without the TLS close alert may have cut data off: it is
        // told apart from a clean close from here on.
        if (m_truncated)
            return Broken(WSAECONNRESET);
        WSASetLastError(WSAEDISCON);
        return 0;
    }
    if (size == 0)
        return Probe();
    ERR_clear_error();
    m_link.socketError = 0;
    size_t read = 0;
    if (SSL_read_ex(m_ssl, buffer, (size_t)size, &read) == 1) {
        WSASetLastError(0);
        return (int)read;
    }
    return Failure(0);
}

// A read of size 0 stores nothing. It takes in what the socket holds now, so
// that OPENSSL_pending afterwards shows decrypted bytes: last error 0 when
// some are there, WSAEWOULDBLOCK when not.
int Connection::Probe()
{
    ERR_clear_error();
    m_link.socketError = 0;
    char byte;
    size_t peeked = 0;
    if (SSL_peek_ex(m_ssl, &byte, 1, &peeked) == 1) {
        WSASetLastError(0);
        return 0;
    }
    int result = Failure(0);
    return result < 0 ? result : 0;
}

int Connection::Failure(int result)
{
    switch (SSL_get_error(m_ssl, result)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
        ERR_clear_error();
        WSASetLastError(WSAEWOULDBLOCK);
        return -1;
    case SSL_ERROR_ZERO_RETURN:
        return PeerClosed();
    default:
        if (m_link.socketError != 0)
            return Broken(m_link.socketError);
        if (m_link.eof) {
            m_truncated = true;   // TCP closed without a close alert
            return PeerClosed();
        }
        return Broken(WSAECONNABORTED);
    }
}

int Connection::PeerClosed()
{
    ERR_clear_error();
    m_peerClosed = true;
    WSASetLastError(0);
    return 0;
}

int Connection::Broken(int error)
{
    ERR_clear_error();
    m_brokenError = error;
    WSASetLastError(error);
    return -1;
}

int Connection::Write(const void* buffer, int size)
{
    if (m_brokenError != 0)
        return Broken(m_brokenError);
    const char* data = static_cast<const char*>(buffer);
    int taken = 0;
    while (taken < size) {
        ERR_clear_error();
        m_link.socketError = 0;
        size_t written = 0;
        if (SSL_write_ex(m_ssl, data + taken, (size_t)(size - taken), &written) == 1) {
            taken += (int)written;
            continue;
        }
        // OpenSSL keeps the record it couldn't finish: the caller offers the
        // same bytes again, from data + taken on.
        int result = Failure(0);
        if (taken == 0)
            return result == 0 ? Broken(WSAEDISCON) : result;
        break;   // a hard error stays recorded for the next call
    }
    WSASetLastError(0);
    return taken;
}

int Connection::Pending()
{
    if (m_brokenError != 0)
        return 0;
    return SSL_pending(m_ssl);
}

void Connection::Shutdown()
{
    int saved = WSAGetLastError();
    // After a fatal error OpenSSL must not send a close alert.
    if (m_brokenError == 0 && SSL_is_init_finished(m_ssl)) {
        m_link.mode = LinkMode::Closing;
        SSL_shutdown(m_ssl);
    }
    ERR_clear_error();
    WSASetLastError(saved);
}

}  // namespace sealkit
