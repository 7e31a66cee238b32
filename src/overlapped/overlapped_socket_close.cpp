// The end of a socket: Close, the accept sockets of a listen socket, the
// connections accepted on it, and the destructor's OnDelete (overlapped_socket.cpp).
#include "overlapped/overlapped_socket.h"

#include <utility>

#include "factory/overlapped_socket_factory.h"
#include "module/scope_lock.h"
#include "overlapped/socket_notify_call.h"

namespace {

typedef std::shared_ptr<COverlappedSocket> SocketRef;

// Erases h from map, handing the reference to the caller (dropped outside the lock).
void TakeOut(COverlappedSocketFactory::SocketMap& map, SOCKET h, std::vector<SocketRef>& taken)
{
    auto it = map.find(h);
    if (it == map.end())
        return;
    taken.push_back(std::move(it->second));
    map.erase(it);
}

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
        // A worker that claimed the report before us calls OnClose itself.
        bWorkerReports = m_bCloseClaimed;
    }
    std::vector<SocketRef> taken;
    COverlappedSocketFactory* pFactory = m_spFactory.get();
    if (hSocket == INVALID_SOCKET || bWasClosed) {
        if (pFactory != NULL) {
            CScopeLock lock(pFactory->m_csLock);
            TakeOut(pFactory->m_mapClosingSockets, hSocket, taken);
        }
        return;
    }
    if (pFactory != NULL) {
        CScopeLock lock(pFactory->m_csLock);
        if (pFactory->m_mapClosingSockets.count(hSocket))
            bWorkerReports = 1;
        TakeOut(pFactory->m_mapClosingSockets, hSocket, taken);
        TakeOut(pFactory->m_mapConnectedSockets, hSocket, taken);
        TakeOut(pFactory->m_mapListenSockets, hSocket, taken);
        TakeOut(pFactory->m_mapOpenSockets, hSocket, taken);
    }
    if (!bWorkerReports)
        CSocketNotifyCall::OnClose(spNotify, 0, spSelf);

    // A timer entry would hold the closed socket (and its OnDelete) until it fell due.
    if (pFactory != NULL)
        pFactory->DropTimerRequests(this, taken);

    // The outstanding accepts are closed while this listen handle is still
    // open: closing it first would abort their AcceptEx, and a worker would
    // report OnConnect(995) for a socket that Close is reporting too.
    CloseAcceptSocket();

    SocketRef spListen;
    {
        CScopeLock lock(m_csLock);
        spListen.swap(m_spListenSocket);
        // Cancels what is outstanding before the handle goes: an overlapped
        // send issued before the connect completed is otherwise never
        // completed on some platforms, and its record would hold the socket.
        CancelIoEx(reinterpret_cast<HANDLE>(hSocket), NULL);
        closesocket(hSocket);
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
    for (const SocketRef& spSocket : accepting)
        spSocket->Close();
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
