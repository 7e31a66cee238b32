// The worker of a TLS factory: takes accept and connect completions (and runs
// the TLS handshake after them) and the wake-ups that Send posts.
#include "factory/overlapped_socket_factory.h"
#include "module/debug_trace.h"
#include "module/scope_lock.h"
#include "overlapped/local_time.h"
#include "overlapped/socket_notify_call.h"
#include "tls/overlapped_ssl.h"

namespace {

bool IsConnectionRecord(int nType)
{
    return nType == COverlappedInfo::TYPE_ACCEPT || nType == COverlappedInfo::TYPE_CONNECT;
}

}  // namespace

DWORD WINAPI COverlappedSSL::WorkThread(void* pParam)
{
    std::shared_ptr<COverlappedSocketFactory> spFactory = FactoryOfWorker(pParam);
    if (!spFactory)
        return 0;
    HANDLE hPort = spFactory->m_hCompletionPort;
    CString strTrace;
    for (;;) {
        CDequeued d;
        EDequeued kind = DequeueCompletion(hPort, d);
        if (kind == DEQUEUED_QUIT)
            break;
        if (kind == DEQUEUED_STRAY)
            continue;   // nothing posts such a packet; it ends no TLS worker
        if (kind == DEQUEUED_PORT_GONE) {
            WiTraceInto(strTrace, L"GetQueuedCompletionStatus return ERROR_ABANDONED_WAIT_0 or ERROR_INVALID_HANDLE\n");
            break;
        }
        if (kind == DEQUEUED_NOTHING) {
            WiTraceInto(strTrace, L"GetQueuedCompletionStatus return %d\n", d.nErrorCode);
            continue;
        }
        COverlappedInfo* pInfo = d.pInfo;
        std::shared_ptr<COverlappedSSL> spSocket = std::static_pointer_cast<COverlappedSSL>(pInfo->m_spSocket);
        // A wake-up of Send is our own post, not an operation of the socket.
        if (spSocket && pInfo != &spSocket->m_SendPostInfo)
            spSocket->CompletionTaken();
        if (kind == DEQUEUED_SUCCESS) {
            if (spSocket)
                spSocket->OnPortCompletion(pInfo);
        } else {
            bool bReport = true;
            if (spSocket)
                bReport = spSocket->OnPortFailure(pInfo, d.nErrorCode, d.nWSAGetLastError, strTrace);
            else
                WiTraceInto(strTrace, L"套接字对象已经无效，nErrorCode = %d\n", d.nErrorCode);
            if (bReport)
                WiTraceInto(strTrace, L"GetQueuedCompletionStatus return %d\n", d.nErrorCode);
        }
        spSocket.reset();
        spFactory->OperationCompleted();
    }
    DWORD dwThreadId = GetCurrentThreadId();
    WiTraceInto(strTrace, L"Exit OverlappedSSL Thread, ThreadId = %d, 0x%x\n", dwThreadId, dwThreadId);
    return 0;
}

// A completion taken with TRUE. The caller holds a reference to this socket.
void COverlappedSSL::OnPortCompletion(COverlappedInfo* pInfo)
{
    int nType = pInfo->m_nOperateType;
    if (pInfo == &m_SendPostInfo) {
        if (TakeSendWakeUp())
            SendBufferedData();
        return;
    }
    if (nType == COverlappedInfo::TYPE_ACCEPT)
        ReplaceAccept(shared_from_this());
    if (!IsConnectionRecord(nType))
        return;
    if (m_bClosed) {
        std::shared_ptr<COverlappedSocket> spReleased;
        CScopeLock lock(m_csLock);
        spReleased = ReleaseRecord(pInfo);
        lock.Unlock();
        return;
    }
    StartHandshake(pInfo);
}

namespace {

struct CHandshakeJob {
    std::shared_ptr<COverlappedSSL> spSocket;
    COverlappedInfo* pInfo;
};

}  // namespace

// A handshake waits for the peer, up to its bound: on a worker, a few silent
// peers would hold every worker and stall every other connection of the
// factory. It runs on a pool thread instead, counted as an operation, so that
// Destory waits for it.
void COverlappedSSL::StartHandshake(COverlappedInfo* pInfo)
{
    CHandshakeJob* pJob = new CHandshakeJob{std::static_pointer_cast<COverlappedSSL>(shared_from_this()), pInfo};
    m_spFactory->OperationIssued();
    if (QueueUserWorkItem(HandshakeJob, pJob, WT_EXECUTELONGFUNCTION))
        return;
    m_spFactory->OperationCompleted();
    delete pJob;
    RunHandshake(pInfo);   // no pool thread to be had: on this worker, as before
}

DWORD WINAPI COverlappedSSL::HandshakeJob(void* pContext)
{
    CHandshakeJob* pJob = static_cast<CHandshakeJob*>(pContext);
    std::shared_ptr<COverlappedSocketFactory> spFactory = pJob->spSocket->m_spFactory;
    pJob->spSocket->RunHandshake(pJob->pInfo);
    delete pJob;   // may end the socket (OnDelete) here
    spFactory->OperationCompleted();
    return 0;
}

void COverlappedSSL::RunHandshake(COverlappedInfo* pInfo)
{
    std::shared_ptr<COverlappedSocket> spSocket = shared_from_this();
    std::shared_ptr<COverlappedSocket> spReleased;
    CScopeLock lock(m_csLock);
    spReleased = ReleaseRecord(pInfo);   // nothing of this socket is outstanding any more
    if (m_bClosed)
        return;
    unsigned long nNonBlocking = 1;
    ioctlsocket(m_hSocket, FIONBIO, &nNonBlocking);
    m_dtConnectTime = CurrentLocalOleDate();
    if (m_spListenSocket) {
        m_hSSL = OPENSSL_accept(m_hSocket);
    } else {
        if (m_hSSL != 0)
            OPENSSL_shutdown(m_hSSL);
        m_hSSL = OPENSSL_connect(m_hSocket);
    }
    if (m_hSSL == 0) {
        Close();   // reports OnClose(0); there was no OnConnect
        return;
    }
    int nNoDelay = 1;
    setsockopt(m_hSocket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&nNoDelay), sizeof(nNoDelay));
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    lock.Unlock();
    // Closed since the lock was left: Close has reported the end, and the
    // socket must not enter the map it already left.
    if (!EnterConnectedMap())
        return;
    CSocketNotifyCall::OnConnect(spNotify, 0, spSocket);
    PrepareRecv();
    WaitForNetworkEvent();
    lock.Lock();
    // Records that Send queued before the handshake had ended go out now.
    if (!m_bClosed && !m_listWaitSend.empty())
        PostSendWakeUp();
}

bool COverlappedSSL::EnterConnectedMap()
{
    std::shared_ptr<COverlappedSocket> spSelf = shared_from_this();
    CScopeLock factoryLock(m_spFactory->m_csLock);
    // Close sets m_bClosed before it takes this lock to leave the maps, so a
    // socket found open here is erased by that Close afterwards.
    if (m_bClosed)
        return false;
    m_spFactory->m_mapConnectedSockets[m_hSocket] = spSelf;
    return true;
}

// A completion taken with FALSE. The caller holds a reference to this socket.
// False if the socket was found closed (the normal end of an aborted operation).
bool COverlappedSSL::OnPortFailure(COverlappedInfo* pInfo, int nErrorCode, int nWSAGetLastError, CString& strTrace)
{
    if (pInfo == &m_SendPostInfo)
        return TakeSendWakeUp();
    int nType = pInfo->m_nOperateType;
    if (nType == COverlappedInfo::TYPE_ACCEPT)
        ReplaceAccept(shared_from_this());
    std::shared_ptr<COverlappedSocket> spSocket = shared_from_this();
    std::shared_ptr<COverlappedSocket> spReleased;
    CScopeLock lock(m_csLock);
    WiTraceInto(strTrace,
                L"spSocketObject = %p, nErrorCode = %d, nWSAGetLastError = %d, pOverlapInfo->m_nOperateType = %d, "
                L"bClosed = %d\n",
                this, nErrorCode, nWSAGetLastError, nType, static_cast<int>(m_bClosed));
    // The operation is over whatever follows: its record lets the socket go,
    // so that a failed accept that doesn't end the connection isn't kept alive.
    spReleased = ReleaseRecord(pInfo);
    if (m_bClosed)
        return false;
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    bool bEnds = FailureEndsConnection(nErrorCode, nType);
    // The report of the end is claimed under the lock, so a Close on another
    // thread can't report it as well.
    int bReportClose = bEnds ? ClaimCloseReport() : 0;
    lock.Unlock();
    if (IsConnectionRecord(nType))
        CSocketNotifyCall::OnConnect(spNotify, nErrorCode, spSocket);
    if (!bEnds)
        return true;
    // The claim above keeps Close silent: it is the one token between the
    // worker and Close.
    if (bReportClose)
        CSocketNotifyCall::OnClose(spNotify, nErrorCode, spSocket);
    Close();
    return true;
}
