// Loopback helpers for tests.
#ifndef WISOCK_TESTS_NET_H
#define WISOCK_TESTS_NET_H

#include <winsock2.h>
#include <ws2tcpip.h>

// Keeps Winsock started for the life of the object.
class WinsockScope {
public:
    WinsockScope() { WSADATA data; WSAStartup(MAKEWORD(2, 2), &data); }
    ~WinsockScope() { WSACleanup(); }
};

// A TCP port on 127.0.0.1 that nothing listens on right now.
unsigned short FreeLoopbackPort();

// A port on 127.0.0.1 that is bound but not listening, held while the object
// lives: a connect to it is refused, and no other program's listener can be
// given it meanwhile (a port found free and let go can be, and a stray
// connect of a test would then count as that program's client).
class RefusingPort {
public:
    RefusingPort();
    ~RefusingPort();
    unsigned short port = 0;

private:
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    WinsockScope m_winsock;
    SOCKET m_s = INVALID_SOCKET;
};

// A plain blocking listener on address:port (port 0: any; address any of
// 127.0.0.0/8); returns the socket and stores the port. INVALID_SOCKET on failure.
SOCKET ListenLoopback(unsigned short& port, int backlog = SOMAXCONN, const char* address = "127.0.0.1");
// A plain blocking client connected to address:port, or INVALID_SOCKET.
SOCKET ConnectLoopback(unsigned short port, const char* address = "127.0.0.1");
// Sends all bytes on a blocking socket; false on failure.
bool SendAll(SOCKET s, const void* data, size_t size);
// Receives exactly size bytes on a blocking socket; false on failure or close.
bool RecvAll(SOCKET s, void* data, size_t size);

#endif
