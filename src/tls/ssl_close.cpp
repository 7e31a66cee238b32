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
    int nCloseError = m_nPeerCloseError;
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
    if (hSocket == INVALID_SOCKET || bWasClosed)
        return;
    LeaveFactoryMaps(hSocket);
    if (bReportClose)
        CSocketNotifyCall::OnClose(spNotify, nCloseError, spSocket);
    // A receive time-out entry would hold the closed socket until it fell due.
    std::vector<std::shared_ptr<COverlappedSocket>> timerRefs;
    m_spFactory->DropTimerRequests(this, timerRefs);
    CloseAcceptSocket();
    EndConnection(hSocket, spListen);
}

// The TLS connection ends before the socket, and the socket's references to
// itself end with it.
void COverlappedSSL::EndConnection(SOCKET hSocket, const std::shared_ptr<COverlappedSocket>& spListenSocket)
{
    // The listen socket's handle, for cancelling an accept still pending on it.
    SOCKET hListen = spListenSocket ? spListenSocket->GetSocketHandle() : INVALID_SOCKET;
    std::shared_ptr<COverlappedSocket> spRecvRef, spPostRef, spListen;
    CScopeLock lock(m_csLock);
    if (m_hSSL != 0) {
        OPENSSL_shutdown(m_hSSL);
        m_hSSL = 0;
    }
    CloseHandleWhenIdle(hSocket, hListen);
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
