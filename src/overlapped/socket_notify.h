// ISocketNotifyObject: what the application implements to hear from sockets
// of the completion-port stack. The order of the six operations is part of
// the binary interface and must not change.
#ifndef WISOCK_OVERLAPPED_SOCKET_NOTIFY_H
#define WISOCK_OVERLAPPED_SOCKET_NOTIFY_H

#include <winsock2.h>
#include <windows.h>

#include <memory>

class COverlappedSocket;

class ISocketNotifyObject {
public:
    // An accept or connect completed: 0 on success, else the error.
    virtual void OnConnect(int nErrorCode, std::shared_ptr<COverlappedSocket> spSocket) = 0;
    // The connection ended; once per socket.
    virtual void OnClose(int nErrorCode, std::shared_ptr<COverlappedSocket> spSocket) = 0;
    // Bytes arrived; pData is valid only during the call. nLength > 0.
    virtual void OnReceive(int nErrorCode, const void* pData, int nLength,
                           std::shared_ptr<COverlappedSocket> spSocket) = 0;
    // A send record completed (only if the socket notifies sends).
    virtual void OnSend(int nErrorCode, int nLength, std::shared_ptr<COverlappedSocket> spSocket) = 0;
    // Nothing was received for the socket's receive time-out. Result: the next
    // time-out in milliseconds, or 0 to stop timing the socket.
    virtual DWORD OnReceiveTimeout(std::shared_ptr<COverlappedSocket> spSocket) = 0;
    // The socket object is being destroyed; the pointer is only a key now.
    virtual void OnDelete(COverlappedSocket* pSocket) = 0;

    virtual ~ISocketNotifyObject() {}
};

#endif
