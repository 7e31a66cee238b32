// COverlappedSSL: the object, its receive staging buffer, and the
// network-event engine: one event selected on the socket, one one-shot
// registered wait on it, one callback that dispatches read, write and close,
// and a work item that registers the next wait.
#include "tls/overlapped_ssl.h"

#include <map>

#include "factory/overlapped_socket_factory.h"
#include "module/scope_lock.h"
#include "tls/network_wait.h"

IMPLEMENT_DYNAMIC(COverlappedSSL, COverlappedSocket)

namespace {

const long kNetworkEvents = FD_READ | FD_WRITE | FD_CLOSE;   // 0x23
const DWORD kLargestKeptRecvBuffer = 0x10000;
const int kRecvBufferGrowth = 4096;

// What Close hands to the work item that ends the wait and the event.
struct CNetworkWaitClose {
    HANDLE hWaitObject;
    WSAEVENT hEvent;
    // The wait context of a wait whose callback had not started when the
    // socket closed; that callback will not free it, so the work item does.
    CNetworkWaitContext* pUnfiredWait;
};

}  // namespace

COverlappedSSL::COverlappedSSL()
    : m_hSSL(0), m_nReadFailCount(0), m_hNetworkEvent(WSACreateEvent()), m_hNetworkWaitObject(NULL),
      m_bReceiving(FALSE), m_nReadEventCount(0)
{
    m_SendPostInfo.m_nOperateType = COverlappedInfo::TYPE_SEND;
    m_SendPostInfo.m_nDataLength = 0;
}

std::shared_ptr<COverlappedSSL> COverlappedSSL::SharedSSL()
{
    return std::static_pointer_cast<COverlappedSSL>(shared_from_this());
}

int COverlappedSSL::PrepareRecv()
{
    CScopeLock lock(m_csLock);
    COverlappedInfo& info = m_RecvInfo;
    info.m_nOperateType = COverlappedInfo::TYPE_RECV;
    if (m_bClosed) {
        // A socket closed in OnConnect or during a burst keeps no reference to itself.
        info.m_spSocket.reset();
        info.m_hSocket = INVALID_SOCKET;
    } else {
        info.m_spSocket = shared_from_this();
        info.m_hSocket = m_hSocket;
    }
    info.m_nDataLength = 0;
    if (m_nReadFailCount != 0)
        info.GrowBuffer(kRecvBufferGrowth, FALSE);
    else if (info.m_nBufferSize > kLargestKeptRecvBuffer)
        info.ResetBuffer(FALSE);
    info.m_WSABuf.buf = reinterpret_cast<CHAR*>(info.m_pBuffer);
    info.m_WSABuf.len = info.m_nBufferSize;
    return 1;
}

void COverlappedSSL::WaitForNetworkEvent()
{
    CScopeLock lock(m_csLock);
    if (m_bClosed)
        return;
    if (m_hNetworkWaitObject != NULL) {
        // The old wait has fired (its callback queued us); it is unregistered
        // exactly once, here, and never from the callback's own thread.
        UnregisterWaitEx(m_hNetworkWaitObject, INVALID_HANDLE_VALUE);
        m_hNetworkWaitObject = NULL;
    }
    CNetworkWaitContext* pContext = new CNetworkWaitContext(SharedSSL());
    CUnfiredWaits::Instance().Add(this, pContext);
    HANDLE hWait = NULL;
    if (!RegisterWaitForSingleObject(&hWait, m_hNetworkEvent, WaitNetworkCallback, pContext, INFINITE,
                                     WT_EXECUTEONLYONCE)) {
        // No wait, so no further events: the context goes now and the
        // connection ends rather than hang silently.
        delete CUnfiredWaits::Instance().Take(this);
        lock.Unlock();
        Close();
        return;
    }
    m_hNetworkWaitObject = hWait;
    WSAEventSelect(m_hSocket, m_hNetworkEvent, kNetworkEvents);
}

DWORD WINAPI COverlappedSSL::WaitForNetworkEventThread(void* pContext)
{
    if (pContext == NULL)
        return 0;
    CNetworkWaitContext* pWait = static_cast<CNetworkWaitContext*>(pContext);
    std::shared_ptr<COverlappedSSL> spSocket = *pWait;
    if (spSocket)
        spSocket->WaitForNetworkEvent();
    delete pWait;
    return 0;
}

void CALLBACK COverlappedSSL::WaitNetworkCallback(void* pContext, BOOLEAN /*bTimedOut*/)
{
    CNetworkWaitContext* pWait = static_cast<CNetworkWaitContext*>(pContext);
    // Close may have taken the context of a wait that had not fired yet; its
    // work item frees it once this callback has returned.
    if (!CUnfiredWaits::Instance().Claim(pWait))
        return;
    std::shared_ptr<COverlappedSSL> spSocket = *pWait;
    if (!spSocket) {
        delete pWait;
        return;
    }
    WSANETWORKEVENTS events = {};
    {
        CScopeLock lock(spSocket->m_csLock);
        // After Close the handle and the event are gone: nothing to read.
        if (!spSocket->m_bClosed)
            WSAEnumNetworkEvents(spSocket->m_hSocket, spSocket->m_hNetworkEvent, &events);
    }
    if (!spSocket->IsClose() && (events.lNetworkEvents & FD_READ))
        spSocket->OnReceive(events.iErrorCode[FD_READ_BIT]);
    if (!spSocket->IsClose() && (events.lNetworkEvents & FD_WRITE))
        spSocket->OnSend(events.iErrorCode[FD_WRITE_BIT]);
    if (!spSocket->IsClose() && (events.lNetworkEvents & FD_CLOSE))
        spSocket->OnClose(events.iErrorCode[FD_CLOSE_BIT]);
    if (spSocket->IsClose()) {
        delete pWait;
        return;
    }
    if (!QueueUserWorkItem(WaitForNetworkEventThread, pWait, WT_EXECUTEDEFAULT)) {
        // Without the work item no wait follows: free the context and end the
        // connection instead of leaving it deaf.
        delete pWait;
        spSocket->Close();
    }
}

DWORD WINAPI COverlappedSSL::CloseNetworkWaitObjectThread(void* pContext)
{
    CNetworkWaitClose* pClose = static_cast<CNetworkWaitClose*>(pContext);
    if (pClose->hWaitObject != NULL)
        UnregisterWaitEx(pClose->hWaitObject, INVALID_HANDLE_VALUE);
    // The wait is gone and its callback has returned, or will never run.
    delete pClose->pUnfiredWait;
    if (pClose->hEvent != NULL)
        WSACloseEvent(pClose->hEvent);
    delete pClose;
    return 0;
}

// Caller holds m_csLock and is the one Close that went from open to closed.
void COverlappedSSL::QueueNetworkWaitClose()
{
    CNetworkWaitClose* pClose = new CNetworkWaitClose{m_hNetworkWaitObject, m_hNetworkEvent,
                                                      CUnfiredWaits::Instance().Take(this)};
    m_hNetworkWaitObject = NULL;
    m_hNetworkEvent = NULL;
    if (pClose->hWaitObject == NULL && pClose->pUnfiredWait == NULL) {
        // Never armed: nothing to wait for, so the event closes here.
        CloseNetworkWaitObjectThread(pClose);
        return;
    }
    if (!QueueUserWorkItem(CloseNetworkWaitObjectThread, pClose, WT_EXECUTEDEFAULT)) {
        // Without a pool thread the wait can't be waited for here (this may be
        // the callback's own thread): unregister without waiting and keep the
        // context, which a running callback may still read.
        if (pClose->hWaitObject != NULL)
            UnregisterWaitEx(pClose->hWaitObject, NULL);
        delete pClose;
    }
}
