// The plain worker: takes completions from the port and turns them into
// state changes, notifications and the next operation. One function per kind
// of completion; PrepareRecv arms the next receive.
#include "overlapped/overlapped_socket.h"

#include <cstring>

#include "factory/overlapped_socket_factory.h"
#include "module/debug_trace.h"
#include "module/scope_lock.h"
#include "overlapped/local_time.h"
#include "overlapped/socket_notify_call.h"

namespace {

typedef std::shared_ptr<COverlappedSocket> SocketRef;

bool IsPendingOrNone(int nError) { return nError == 0 || nError == WSA_IO_PENDING; }

}  // namespace

bool COverlappedSocket::FailureEndsConnection(int nErrorCode, int nOperateType)
{
    return nErrorCode == ERROR_NETNAME_DELETED || nErrorCode == ERROR_SEM_TIMEOUT ||
           (nErrorCode == ERROR_OPERATION_ABORTED && nOperateType == COverlappedInfo::TYPE_ACCEPT) ||
           nOperateType == COverlappedInfo::TYPE_CONNECT;
}

std::shared_ptr<COverlappedSocketFactory> COverlappedSocket::FactoryOfWorker(void* pParam)
{
    COverlappedSocketFactory* pFactory = static_cast<COverlappedSocketFactory*>(pParam);
    std::shared_ptr<COverlappedSocketFactory> spFactory = pFactory->weak_from_this().lock();
    if (!spFactory || spFactory->m_hCompletionPort == NULL)
        return nullptr;
    return spFactory;
}

bool COverlappedSocket::ReleaseIfClosed(COverlappedInfo* pInfo, std::shared_ptr<COverlappedSocket>& spReleased)
{
    if (!m_bClosed)
        return false;
    spReleased = ReleaseRecord(pInfo);
    return true;
}

COverlappedSocket::EDequeued COverlappedSocket::DequeueCompletion(HANDLE hPort, CDequeued& d)
{
    d.dwBytes = 0;
    ULONG_PTR nKey = ~static_cast<ULONG_PTR>(0);
    LPOVERLAPPED pOverlapped = NULL;
    WSASetLastError(0);
    BOOL bOk = GetQueuedCompletionStatus(hPort, &d.dwBytes, &nKey, &pOverlapped, INFINITE);
    d.nErrorCode = bOk ? 0 : COverlappedSocket::GetLastError();
    d.nWSAGetLastError = WSAGetLastError();
    d.pInfo = reinterpret_cast<COverlappedInfo*>(pOverlapped);
    if (pOverlapped != NULL)
        return bOk ? DEQUEUED_SUCCESS : DEQUEUED_FAILURE;
    if (bOk)
        return nKey == 0 && d.dwBytes == 0 ? DEQUEUED_QUIT : DEQUEUED_STRAY;
    if (d.nErrorCode == ERROR_ABANDONED_WAIT_0 || d.nErrorCode == ERROR_INVALID_HANDLE)
        return DEQUEUED_PORT_GONE;
    if (nKey == 0 && d.dwBytes == 0)
        return DEQUEUED_QUIT;
    return DEQUEUED_NOTHING;
}

// Takes the record's socket reference for the pass and counts the completion
// as taken; the reference may be empty (a record already released).
std::shared_ptr<COverlappedSocket> COverlappedSocket::TakeRecordSocket(COverlappedInfo* pInfo)
{
    SocketRef spSocket = pInfo->m_spSocket;
    if (spSocket)
        spSocket->CompletionTaken();
    return spSocket;
}

DWORD WINAPI COverlappedSocket::WorkThread(void* pParam)
{
    std::shared_ptr<COverlappedSocketFactory> spFactory = FactoryOfWorker(pParam);
    if (!spFactory)
        return 0;
    HANDLE hPort = spFactory->m_hCompletionPort;
    CString strTrace;
    for (;;) {
        CDequeued d;
        EDequeued kind = DequeueCompletion(hPort, d);
        if (kind == DEQUEUED_QUIT || kind == DEQUEUED_STRAY)
            break;   // the quit packet of Destory (the plain worker leaves on any packet without record)
        if (kind == DEQUEUED_PORT_GONE) {
            WiTraceInto(strTrace, L"GetQueuedCompletionStatus return ERROR_ABANDONED_WAIT_0 or ERROR_INVALID_HANDLE\n");
            break;
        }
        if (kind == DEQUEUED_NOTHING) {
            WiTraceInto(strTrace, L"GetQueuedCompletionStatus return %d\n", d.nErrorCode);
            continue;
        }
        COverlappedInfo* pInfo = d.pInfo;
        SocketRef spSocket = TakeRecordSocket(pInfo);
        if (kind == DEQUEUED_SUCCESS) {
            if (spSocket)
                spSocket->OnCompletion(pInfo, d.dwBytes, strTrace);
            else if (d.dwBytes == 0 && (pInfo->m_nOperateType == COverlappedInfo::TYPE_RECV ||
                                        pInfo->m_nOperateType == COverlappedInfo::TYPE_SEND))
                WiTraceInto(strTrace, L"套接字被对方关闭, pOverlapInfo->m_nOperateType = %d\n", pInfo->m_nOperateType);
        } else if (spSocket) {
            WSASetLastError(d.nWSAGetLastError);
            spSocket->OnFailedCompletion(pInfo, d.dwBytes, d.nErrorCode, strTrace);
        } else {
            WiTraceInto(strTrace, L"套接字对象已经无效，nErrorCode = %d\n", d.nErrorCode);
            WiTraceInto(strTrace, L"GetQueuedCompletionStatus return %d\n", d.nErrorCode);
        }
        spSocket.reset();   // may run the destructor (OnDelete) here, with no lock held
        spFactory->OperationCompleted();
    }
    WiTraceInto(strTrace, L"Exit OverlappedSocket Thread, ThreadId = %d, 0x%x\n", GetCurrentThreadId(),
                GetCurrentThreadId());
    return 0;
}

void COverlappedSocket::OnCompletion(COverlappedInfo* pInfo, DWORD dwBytes, CString& strTrace)
{
    int nType = pInfo->m_nOperateType;
    SocketRef spSelf = shared_from_this();
    if (nType == COverlappedInfo::TYPE_ACCEPT)
        ReplaceAccept(spSelf);
    bool bZeroTransfer = dwBytes == 0 && (nType == COverlappedInfo::TYPE_RECV || nType == COverlappedInfo::TYPE_SEND);
    if (bZeroTransfer || m_bClosed) {
        OnClosingCompletion(pInfo, strTrace);
        return;
    }
    switch (nType) {
    case COverlappedInfo::TYPE_RECV:
        OnRecvCompleted(pInfo, dwBytes, strTrace);
        break;
    case COverlappedInfo::TYPE_SEND:
        OnSendCompleted(pInfo, dwBytes, strTrace);
        break;
    case COverlappedInfo::TYPE_ACCEPT:
    case COverlappedInfo::TYPE_CONNECT:
        OnConnectCompleted(pInfo, strTrace);
        break;
    default:
        break;
    }
}

// A zero-byte receive or send, or any completion of a closed socket.
void COverlappedSocket::OnClosingCompletion(COverlappedInfo* pInfo, CString& strTrace)
{
    SocketRef spSelf = shared_from_this();
    int nType = pInfo->m_nOperateType;
    SocketRef spReleased;
    CScopeLock lock(m_csLock);
    spReleased = ReleaseRecord(pInfo);
    // Silent if Close has already reported, or another worker reports the end.
    if (!ClaimCloseReport())
        return;
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    int nError = WSAGetLastError();
    lock.Unlock();
    CSocketNotifyCall::OnClose(spNotify, nError, spSelf);
    Close();
    WiTraceInto(strTrace, L"套接字被对方关闭, pOverlapInfo->m_nOperateType = %d\n", nType);
}

void COverlappedSocket::OnRecvCompleted(COverlappedInfo* pInfo, DWORD dwBytes, CString& strTrace)
{
    SocketRef spSelf = shared_from_this();
    SocketRef spReleased;
    CScopeLock lock(m_csLock);
    if (ReleaseIfClosed(pInfo, spReleased))
        return;
    m_dwLastReceiveTick = GetTickCount();
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    lock.Unlock();
    if (dwBytes > 0)
        CSocketNotifyCall::OnReceive(spNotify, 0, pInfo->m_pBuffer, static_cast<int>(dwBytes), spSelf);
    ArmNextRecv(COverlappedInfo::TYPE_RECV, strTrace);
}

void COverlappedSocket::OnSendCompleted(COverlappedInfo* pInfo, DWORD dwBytes, CString& strTrace)
{
    SocketRef spSelf = shared_from_this();
    SocketRef spReleased;
    CScopeLock lock(m_csLock);
    if (ReleaseIfClosed(pInfo, spReleased))
        return;
    m_bSending = 0;
    if (dwBytes < pInfo->m_WSABuf.len) {
        std::memmove(pInfo->m_pBuffer, pInfo->m_pBuffer + dwBytes, pInfo->m_nDataLength - dwBytes);
        pInfo->m_nDataLength -= dwBytes;
        pInfo->m_WSABuf.buf = reinterpret_cast<char*>(pInfo->m_pBuffer);
        pInfo->m_WSABuf.len = pInfo->m_nDataLength;
        m_listWaitSend.push_front(pInfo);
    } else {
        m_vecFreeInfo.push_back(pInfo);
    }
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    lock.Unlock();
    SendBufferedData();
    int nError = WSAGetLastError();
    if (m_bNotifySend)
        CSocketNotifyCall::OnSend(spNotify, 0, static_cast<int>(dwBytes), spSelf);
    if (nError != 0 && nError != WSA_IO_PENDING && nError != WSAEWOULDBLOCK) {
        WiTraceInto(strTrace, L"SendBufferedData return Error = %d, spSocket = %p\n", nError, spSelf.get());
        Close();
    }
}

void COverlappedSocket::OnConnectCompleted(COverlappedInfo* pInfo, CString& strTrace)
{
    int nType = pInfo->m_nOperateType;
    SocketRef spSelf = shared_from_this();
    SocketRef spReleased;
    CScopeLock lock(m_csLock);
    if (ReleaseIfClosed(pInfo, spReleased))
        return;
    int nNoDelay = 1;
    setsockopt(m_hSocket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&nNoDelay), sizeof(nNoDelay));
    m_dtConnectTime = CurrentLocalOleDate();
    m_RecvInfo.m_spSocket = std::move(m_ConnectInfo.m_spSocket);
    m_ConnectInfo.m_hSocket = INVALID_SOCKET;
    m_RecvInfo.m_hSocket = m_hSocket;
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    SOCKET hSocket = m_hSocket;
    lock.Unlock();
    {
        CScopeLock factoryLock(m_spFactory->m_csLock);
        // A Close that ran since the lock was left has already emptied the maps.
        if (!m_bClosed)
            m_spFactory->m_mapConnectedSockets[hSocket] = spSelf;
    }
    CSocketNotifyCall::OnConnect(spNotify, 0, spSelf);
    ArmNextRecv(nType, strTrace);
}

// Arms the next receive after a completion of nOperateType. Without a receive
// in flight nothing would ever release m_RecvInfo's reference, so a failed
// arm releases it here, and the socket is closed. 0 if it closed the socket.
int COverlappedSocket::ArmNextRecv(int nOperateType, CString& strTrace)
{
    SocketRef spSelf = shared_from_this();
    int bArmed = PrepareRecv();
    int nError = WSAGetLastError();
    if (!bArmed) {
        SocketRef spReleased;
        CScopeLock lock(m_csLock);
        spReleased = ReleaseRecord(&m_RecvInfo);
    }
    if (!IsPendingOrNone(nError)) {
        WiTraceInto(strTrace,
                    L"PrepareRecv failed, spSocketObject = %p, nWSAGetLastError = %d, pOverlapInfo->m_nOperateType = %d\n",
                    spSelf.get(), nError, nOperateType);
        Close();
        return 0;
    }
    return 1;
}

void COverlappedSocket::OnFailedCompletion(COverlappedInfo* pInfo, DWORD dwBytes, int nErrorCode, CString& strTrace)
{
    int nWSAGetLastError = WSAGetLastError();
    int nType = pInfo->m_nOperateType;
    SocketRef spSelf = shared_from_this();
    if (nType == COverlappedInfo::TYPE_ACCEPT)
        ReplaceAccept(spSelf);
    SocketRef spReleased;
    CScopeLock lock(m_csLock);
    WiTraceInto(strTrace,
                L"spSocketObject = %p, nErrorCode = %d, nWSAGetLastError = %d, pOverlapInfo->m_nOperateType = %d, bClosed = %d\n",
                spSelf.get(), nErrorCode, nWSAGetLastError, nType, m_bClosed);
    if (m_bClosed) {
        // The normal end of what was outstanding when Close ran.
        spReleased = ReleaseRecord(pInfo);
        return;
    }
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    lock.Unlock();

    if (nType == COverlappedInfo::TYPE_RECV && dwBytes > 0)
        CSocketNotifyCall::OnReceive(spNotify, nErrorCode, pInfo->m_pBuffer, static_cast<int>(dwBytes), spSelf);
    else if (nType == COverlappedInfo::TYPE_SEND && m_bNotifySend)
        CSocketNotifyCall::OnSend(spNotify, nErrorCode, static_cast<int>(dwBytes), spSelf);
    else if (nType == COverlappedInfo::TYPE_ACCEPT || nType == COverlappedInfo::TYPE_CONNECT)
        CSocketNotifyCall::OnConnect(spNotify, nErrorCode, spSelf);

    if (nType == COverlappedInfo::TYPE_RECV) {
        if (!ArmNextRecv(nType, strTrace))
            return;
    }
    if (FailureEndsConnection(nErrorCode, nType)) {
        EndAfterFailure(pInfo, nErrorCode);
    } else if (nType == COverlappedInfo::TYPE_SEND) {
        lock.Lock();
        // Closed inside OnSend: Close has freed the waiting records, and this
        // one, queued again, would hold the socket for ever.
        if (ReleaseIfClosed(pInfo, spReleased))
            return;
        m_listWaitSend.push_front(pInfo);
        m_bSending = 0;
        lock.Unlock();
        SendBufferedData();
    } else if (nType == COverlappedInfo::TYPE_ACCEPT || nType == COverlappedInfo::TYPE_CONNECT) {
        // A failed accept that leaves the socket open: nothing is in flight on
        // the record any more, so its reference goes now; the maps hold the socket.
        lock.Lock();
        spReleased = ReleaseRecord(pInfo);
        lock.Unlock();
    }
    WiTraceInto(strTrace, L"GetQueuedCompletionStatus return %d\n", nErrorCode);
}

// A failure that ends the connection: the one OnClose with the error, then Close.
void COverlappedSocket::EndAfterFailure(COverlappedInfo* pInfo, int nErrorCode)
{
    SocketRef spSelf = shared_from_this();
    SocketRef spReleased;
    CScopeLock lock(m_csLock);
    int bReport = ClaimCloseReport();
    // A receive record was armed again just before and is in flight: its own
    // completion releases it, so the object outlives that receive.
    if (pInfo->m_nOperateType != COverlappedInfo::TYPE_RECV)
        spReleased = ReleaseRecord(pInfo);
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    lock.Unlock();
    if (!bReport)
        return;
    CSocketNotifyCall::OnClose(spNotify, nErrorCode, spSelf);
    Close();
}

int COverlappedSocket::PrepareRecv()
{
    CScopeLock lock(m_csLock);
    m_RecvInfo.m_WSABuf.buf = reinterpret_cast<char*>(m_RecvInfo.m_pBuffer);
    m_RecvInfo.m_WSABuf.len = m_RecvInfo.m_nBufferSize;
    m_RecvInfo.m_nOperateType = COverlappedInfo::TYPE_RECV;
    DWORD dwReceived = 0, dwFlags = 0;
    // Issued under the lock, so that Close cannot close (and the system reuse)
    // the handle between reading it and WSARecv.
    OperationIssued();
    int nResult = WSARecv(m_hSocket, &m_RecvInfo.m_WSABuf, 1, &dwReceived, &dwFlags, &m_RecvInfo.m_Overlapped, NULL);
    int nError = WSAGetLastError();
    if (nResult != 0 && nError != WSA_IO_PENDING) {
        OperationNotStarted();
        lock.Unlock();
        WiTrace(L"PrepareRecv failed\n");
        WSASetLastError(nError);
        return 0;
    }
    if (nResult == 0)
        WSASetLastError(0);
    return 1;
}

void COverlappedSocket::ReplaceAccept(const std::shared_ptr<COverlappedSocket>& spAcceptSocket)
{
    SocketRef spListen;
    {
        CScopeLock lock(spAcceptSocket->m_csLock);
        spListen = spAcceptSocket->m_spListenSocket;
    }
    if (!spListen)
        return;   // the accept socket was closed: no replacement
    {
        CScopeLock lock(spListen->m_csLock);
        // CreateSocket may not have entered the socket yet; the mark keeps it
        // from entering it after this completion.
        spAcceptSocket->m_bAcceptTaken = 1;
        spListen->m_setAcceptSockets.erase(spAcceptSocket);
    }
    if (spListen->IsClose())
        return;   // a closed listen socket keeps no pool
    spAcceptSocket->m_spFactory->CreateSocket(spListen->GetNotifyObject(), spListen);
}
