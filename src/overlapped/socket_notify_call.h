// The one place that calls an ISocketNotifyObject: each call is skipped when
// there is no notify object, and an exception of the CException family thrown
// by the application is caught and deleted, so the caller goes on with its
// next step. Callers copy the notify object under the socket lock and call
// these with no lock held. Internal to wisock.dll.
#ifndef WISOCK_OVERLAPPED_SOCKET_NOTIFY_CALL_H
#define WISOCK_OVERLAPPED_SOCKET_NOTIFY_CALL_H

#include <memory>

#include "overlapped/socket_notify.h"

typedef std::shared_ptr<ISocketNotifyObject> SocketNotifyPtr;
typedef std::shared_ptr<COverlappedSocket> SocketPtr;

struct CSocketNotifyCall {
    static void OnConnect(const SocketNotifyPtr& spNotify, int nErrorCode, const SocketPtr& spSocket);
    static void OnClose(const SocketNotifyPtr& spNotify, int nErrorCode, const SocketPtr& spSocket);
    static void OnReceive(const SocketNotifyPtr& spNotify, int nErrorCode, const void* pData, int nLength,
                          const SocketPtr& spSocket);
    static void OnSend(const SocketNotifyPtr& spNotify, int nErrorCode, int nLength, const SocketPtr& spSocket);
    // 0 when there is no notify object or the call threw.
    static DWORD OnReceiveTimeout(const SocketNotifyPtr& spNotify, const SocketPtr& spSocket);
    static void OnDelete(const SocketNotifyPtr& spNotify, COverlappedSocket* pSocket);
};

#endif
