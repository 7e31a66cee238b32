// The end of a TLS socket: selection off, event signalled, the wait and the
// event handed to a work item (nothing here waits for the wait's callback, so
// Close is safe on the callback's thread and under the socket lock), the
// maps, the one OnClose, then OPENSSL_shutdown before closesocket.
#include <vector>

#include "factory/overlapped_socket_factory.h"
#include "module/scope_lock.h"
#include "overlapped/socket_notify_call.h"
#include "tls/network_wait.h"
#include "tls/overlapped_ssl.h"

void COverlappedSSL::Close()
{
    CScopeLock lock(m_csLock);
    std::shared_ptr<COverlappedSocket> spSocket = shared_from_this();
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    std::shared_ptr<COverlappedSocket> spListen = m_spListenSocket;
    SOCKET hSocket = m_hSocket;
    int bWasClosed = m_bClosed;
    // Whoever claims the report first (a worker that saw the connection fail,
    // or this call) makes the one OnClose.
    int bReportClose = ClaimCloseReport();
    m_bClosed = 1;
    if (hSocket != INVALID_SOCKET)
        WSAEventSelect(hSocket, m_hNetworkEvent, 0);
    if (m_hNetworkEvent != NULL)
        SetEvent(m_hNetworkEvent);
    if (!bWasClosed)
        QueueNetworkWaitClose();
    lock.Unlock();

    if (spListen) {
        CScopeLock listenLock(spListen->m_csLock);
        spListen->m_setAcceptSockets.erase(spSocket);
    }
    if (hSocket == INVALID_SOCKET || bWasClosed) {
        CScopeLock factoryLock(m_spFactory->m_csLock);
        m_spFactory->m_mapClosingSockets.erase(hSocket);
        return;
    }
    bool bWorkerReports = LeaveFactoryMaps(hSocket);
    if (!bWorkerReports && bReportClose)
        CSocketNotifyCall::OnClose(spNotify, 0, spSocket);
    // A receive time-out entry would hold the closed socket until it fell due.
    std::vector<std::shared_ptr<COverlappedSocket>> timerRefs;
    m_spFactory->DropTimerRequests(this, timerRefs);
    EndConnection(hSocket);
    CloseAcceptSocket();
}

// True if a worker has taken over the report (the socket stood in m_mapClosingSockets).
bool COverlappedSSL::LeaveFactoryMaps(SOCKET hSocket)
{
    // The entries are dropped after the factory lock is left: one of them may
    // be the last reference but the caller's.
    std::vector<std::shared_ptr<COverlappedSocket>> released;
    CScopeLock factoryLock(m_spFactory->m_csLock);
    COverlappedSocketFactory* pFactory = m_spFactory.get();
    bool bWorkerReports = pFactory->m_mapClosingSockets.count(hSocket) != 0;
    COverlappedSocketFactory::SocketMap* maps[] = {&pFactory->m_mapClosingSockets, &pFactory->m_mapConnectedSockets,
                                                   &pFactory->m_mapListenSockets, &pFactory->m_mapOpenSockets};
    for (COverlappedSocketFactory::SocketMap* pMap : maps) {
        auto it = pMap->find(hSocket);
        if (it != pMap->end()) {
            released.push_back(it->second);
            pMap->erase(it);
        }
    }
    factoryLock.Unlock();
    return bWorkerReports;
}

// The TLS connection ends before the socket, and the socket's references to
// itself end with it.
void COverlappedSSL::EndConnection(SOCKET hSocket)
{
    std::shared_ptr<COverlappedSocket> spRecvRef, spPostRef, spListen;
    CScopeLock lock(m_csLock);
    if (m_hSSL != 0) {
        OPENSSL_shutdown(m_hSSL);
        m_hSSL = 0;
    }
    closesocket(hSocket);
    m_hSocket = INVALID_SOCKET;
    spRecvRef.swap(m_RecvInfo.m_spSocket);
    m_RecvInfo.m_hSocket = INVALID_SOCKET;
    // A wake-up still in the port reads the record inside this object: its
    // reference stays until the worker has taken the last one.
    if (m_SendPostInfo.m_nDataLength == 0) {
        spPostRef.swap(m_SendPostInfo.m_spSocket);
        m_SendPostInfo.m_hSocket = INVALID_SOCKET;
    }
    DestroySendRecords();
    spListen.swap(m_spListenSocket);
    lock.Unlock();
}

COverlappedSSL::~COverlappedSSL()
{
    // Reported here, while the object is still a whole TLS socket; the base
    // destructor's call then finds nothing left to report.
    ReportDeleteAndFreeRecords();
    // An object that never went through Close (its creation failed halfway)
    // still owns its event object; nothing can wait on it, since a registered
    // wait would hold a reference to the object.
    if (m_hNetworkEvent != NULL)
        WSACloseEvent(m_hNetworkEvent);
}
