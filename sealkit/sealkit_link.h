// The BIO between OpenSSL and the caller's SOCKET.
//
// After the handshake the link never waits: a socket that would block gives
// OpenSSL a retry, which the library reports as WSAEWOULDBLOCK. During the
// handshake it waits with select() until the deadline, before every recv and
// send, so the handshake finishes on blocking and non-blocking sockets alike
// and never waits past its bound. While closing it sends only what fits now.
#ifndef SEALKIT_LINK_H
#define SEALKIT_LINK_H

#include <winsock2.h>
#include <windows.h>

#include <openssl/bio.h>

namespace sealkit {

enum class LinkMode { Data, Handshake, Closing };

struct Link {
    SOCKET socket = INVALID_SOCKET;
    LinkMode mode = LinkMode::Data;
    ULONGLONG deadline = 0;   // GetTickCount64 value; used in Handshake mode
    int socketError = 0;      // last hard socket error (WSAETIMEDOUT: the deadline passed)
    bool eof = false;         // recv gave 0: the peer closed its side of TCP
};

// A BIO over link->socket; it never closes the socket. Null on failure.
BIO* NewLinkBio(Link* link);

// Frees the BIO method at process end.
void ReleaseLinkMethod();

}  // namespace sealkit

#endif
