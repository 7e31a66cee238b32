// What the completion-port echo sections share: the server's notify object,
// which sends back every byte it receives, and the port a listener got.
#ifndef WISOCK_DEMO_ECHO_SERVER_H
#define WISOCK_DEMO_ECHO_SERVER_H

#include <winsock2.h>
#include <windows.h>

#include <memory>

#include "overlapped/overlapped_socket.h"
#include "overlapped/socket_notify.h"

class EchoServerNotify : public ISocketNotifyObject {
public:
    typedef std::shared_ptr<COverlappedSocket> SocketPtr;

    void OnConnect(int, SocketPtr) override {}
    void OnClose(int, SocketPtr) override {}
    void OnReceive(int, const void* pData, int nLength, SocketPtr s) override { s->Send(pData, nLength, 0); }
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override {}
};

// The port of a listener created on port 0.
inline unsigned int ListenPort(const std::shared_ptr<COverlappedSocket>& listen)
{
    CString address;
    unsigned int port = 0;
    listen->GetSockName(address, port);
    return port;
}

#endif
