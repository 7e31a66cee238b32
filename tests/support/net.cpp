#include "support/net.h"

namespace {

sockaddr_in Loopback(unsigned short port, const char* address = "127.0.0.1")
{
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = inet_addr(address);
    addr.sin_port = htons(port);
    return addr;
}

}  // namespace

unsigned short FreeLoopbackPort()
{
    WinsockScope ws;
    unsigned short port = 0;
    SOCKET s = ListenLoopback(port, 1);
    if (s != INVALID_SOCKET)
        closesocket(s);
    return port;
}

RefusingPort::RefusingPort() : m_s(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP))
{
    sockaddr_in addr = Loopback(0);
    int len = sizeof(addr);
    if (m_s != INVALID_SOCKET && bind(m_s, (sockaddr*)&addr, sizeof(addr)) == 0 &&
        getsockname(m_s, (sockaddr*)&addr, &len) == 0)
        port = ntohs(addr.sin_port);
}

RefusingPort::~RefusingPort()
{
    if (m_s != INVALID_SOCKET)
        closesocket(m_s);
}

SOCKET ListenLoopback(unsigned short& port, int backlog, const char* address)
{
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET)
        return s;
    sockaddr_in addr = Loopback(port, address);
    int len = sizeof(addr);
    if (bind(s, (sockaddr*)&addr, sizeof(addr)) != 0 || listen(s, backlog) != 0 ||
        getsockname(s, (sockaddr*)&addr, &len) != 0) {
        closesocket(s);
        return INVALID_SOCKET;
    }
    port = ntohs(addr.sin_port);
    return s;
}

SOCKET ConnectLoopback(unsigned short port, const char* address)
{
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET)
        return s;
    sockaddr_in addr = Loopback(port, address);
    if (connect(s, (sockaddr*)&addr, sizeof(addr)) != 0) {
        closesocket(s);
        return INVALID_SOCKET;
    }
    return s;
}

bool SendAll(SOCKET s, const void* data, size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        int n = send(s, p, (int)(size > 65536 ? 65536 : size), 0);
        if (n <= 0)
            return false;
        p += n;
        size -= n;
    }
    return true;
}

bool RecvAll(SOCKET s, void* data, size_t size)
{
    char* p = static_cast<char*>(data);
    while (size > 0) {
        int n = recv(s, p, (int)(size > 65536 ? 65536 : size), 0);
        if (n <= 0)
            return false;
        p += n;
        size -= n;
    }
    return true;
}
