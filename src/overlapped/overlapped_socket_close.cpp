// The end of a socket: Close, the accept sockets of a listen socket, the
// connections accepted on it, and the destructor's OnDelete (overlapped_socket.cpp).
#include "overlapped/overlapped_socket.h"

#include <utility>

#include "factory/overlapped_socket_factory.h"
#include "module/scope_lock.h"
#include "overlapped/socket_notify_call.h"

namespace {

typedef std::shared_ptr<COverlappedSocket> SocketRef;

}  // namespace

void COverlappedSocket::Close()
{
    SocketRef spSelf;
    std::shared_ptr<ISocketNotifyObject> spNotify;
    SOCKET hSocket;
    int bWasClosed, bWorkerReports;
    {
        CScopeLock lock(m_csLock);
        spSelf = shared_from_this();
        spNotify = m_spNotifyObject;
        hSocket = m_hSocket;
        bWasClosed = m_bClosed;
        m_bClosed = 1;
        // A worker that claimed the report before us calls OnClose itself;
        // the claim is the only token between the worker and Close.
        bWorkerReports = m_bCloseClaimed;
    }
    if (hSocket == INVALID_SOCKET || bWasClosed)
        return;
    LeaveFactoryMaps(hSocket);
    if (!bWorkerReports)
        CSocketNotifyCall::OnClose(spNotify, 0, spSelf);

    // A timer entry would hold the closed socket (and its OnDelete) until it fell due.
    std::vector<SocketRef> timerRefs;
    if (m_spFactory)
        m_spFactory->DropTimerRequests(this, timerRefs);

    // The outstanding accepts are closed while this listen handle is still
    // open: closing it first would abort their AcceptEx, and a worker would
    // report OnConnect(995) for a socket that Close is reporting too.
    CloseAcceptSocket();

    SocketRef spListen;
    {
        CScopeLock lock(m_csLock);
        spListen = m_spListenSocket;
    }
    SOCKET hListen = spListen ? spListen->GetSocketHandle() : INVALID_SOCKET;
    {
        CScopeLock lock(m_csLock);
        m_spListenSocket.reset();
        CloseHandleWhenIdle(hSocket, hListen);
        m_hSocket = INVALID_SOCKET;
        DestroySendRecords();
    }
    if (spListen) {
        CScopeLock lock(spListen->m_csLock);
        spListen->m_setAcceptSockets.erase(spSelf);
    }
}

void COverlappedSocket::CloseAcceptSocket()
{
    std::set<SocketRef> accepting;
    {
        CScopeLock lock(m_csLock);
        accepting = m_setAcceptSockets;
    }
    for (const SocketRef& spSocket : accepting) {
        // An accept that has already completed is a connection whose report
        // is still in the port: it lives on as an ordinary connection (the
        // worker makes it one), only the outstanding accepts end here.
        if (HasOverlappedIoCompleted(&spSocket->m_ConnectInfo.m_Overlapped))
            continue;
        spSocket->Close();
    }
}

void COverlappedSocket::CloseAllAcceptedSocket()
{
    SocketRef spSelf = shared_from_this();
    std::vector<SocketRef> accepted;
    if (m_spFactory) {
        CScopeLock lock(m_spFactory->m_csLock);
        for (const auto& entry : m_spFactory->m_mapConnectedSockets)
            if (entry.second->m_spListenSocket == spSelf)
                accepted.push_back(entry.second);
    }
    for (const SocketRef& spSocket : accepted)
        spSocket->Close();
}
