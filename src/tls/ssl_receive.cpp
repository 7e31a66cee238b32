// The TLS receive path: on FD_READ a burst pulls plaintext out of the TLS
// library pass by pass, delivers each pass in one notification, and ends only
// when the library, the socket and the event count all have nothing more.
#include "module/debug_trace.h"
#include "module/scope_lock.h"
#include "overlapped/socket_notify_call.h"
#include "tls/overlapped_ssl.h"
#include "tls/tls_peer_close.h"

namespace {

const int kReadFailLimit = 100;

// The socket whose OnReceive runs on this thread, if any.
thread_local const COverlappedSSL* t_pDelivering = nullptr;

bool IsSoftReadFailure(int nError)
{
    return nError == WSAEWOULDBLOCK || nError == ERROR_IO_PENDING || nError == WSAETIMEDOUT || nError == 0;
}

}  // namespace

void COverlappedSSL::OnReceive(int nErrorCode)
{
    std::shared_ptr<COverlappedSocket> spSelf = shared_from_this();
    CScopeLock lock(m_csLock);
    ++m_nReadEventCount;
    if (m_bReceiving)
        return;   // the running burst sees the count
    if (m_bClosed) {
        m_RecvInfo.m_spSocket.reset();   // spSelf keeps the object for this call
        m_RecvInfo.m_hSocket = INVALID_SOCKET;
        return;
    }
    if (nErrorCode != 0) {
        lock.Unlock();
        WiTrace(L"COverlappedSSL::OnReceive (Error = %d ), spSocket = %p, ThreadId = %d\n", nErrorCode, this,
                GetCurrentThreadId());
        Close();
        return;
    }
    std::shared_ptr<ISocketNotifyObject> spNotify = m_spNotifyObject;
    m_dwLastReceiveTick = GetTickCount();
    m_bReceiving = TRUE;
    for (;;) {
        int nError = 0;
        if (!ReadPass(nError)) {
            lock.Unlock();
            WiTrace(L"COverlappedSSL::OnReceive ,Error = %d, spSocket = %p, ThreadId = %d\n", nError, this,
                    GetCurrentThreadId());
            Close();
            return;
        }
        if (m_RecvInfo.m_nDataLength == 0)
            break;
        lock.Unlock();
        Deliver(spNotify, spSelf);
        lock.Lock();
        // Closed during the delivery: the TLS handle is gone, so the burst
        // ends without touching the library.
        if (m_bClosed || !HasMoreToRead())
            break;
    }
    m_bReceiving = FALSE;
    lock.Unlock();
    PrepareRecv();
}

bool COverlappedSSL::IsDeliveringHere() const { return t_pDelivering == this; }

// One OnReceive of the staged data, then the flush of what it sent.
void COverlappedSSL::Deliver(const std::shared_ptr<ISocketNotifyObject>& spNotify,
                             const std::shared_ptr<COverlappedSocket>& spSelf)
{
    const COverlappedSSL* pOuter = t_pDelivering;
    t_pDelivering = this;
    CSocketNotifyCall::OnReceive(spNotify, 0, m_RecvInfo.m_pBuffer, static_cast<int>(m_RecvInfo.m_nDataLength),
                                 spSelf);
    t_pDelivering = pOuter;
    CScopeLock lock(m_csLock);
    if (!m_bFlushAfterDelivery)
        return;
    m_bFlushAfterDelivery = FALSE;
    lock.Unlock();
    SendBufferedData();
}

// Caller holds m_csLock. Reads until the library has nothing more; false if
// the connection is to be given up, with the read's error in nError.
bool COverlappedSSL::ReadPass(int& nError)
{
    COverlappedInfo& info = m_RecvInfo;
    info.m_nDataLength = 0;
    int nRead = 0;
    do {
        int nSize = OPENSSL_pending(m_hSSL);
        if (nSize < 1) {
            unsigned long nRaw = 0;
            nSize = IOCtl(FIONREAD, &nRaw) ? static_cast<int>(nRaw) : static_cast<int>(info.m_nBufferSize);
        }
        if (info.m_nDataLength + nSize > info.m_nBufferSize)
            info.ResizeBuffer(static_cast<int>(info.m_nDataLength + nSize), TRUE);
        // If the buffer could not grow, the read gets the room there is.
        DWORD nRoom = info.m_nBufferSize - info.m_nDataLength;
        if (static_cast<DWORD>(nSize) > nRoom)
            nSize = static_cast<int>(nRoom);
        nRead = OPENSSL_read(m_hSSL, info.m_pBuffer + info.m_nDataLength, nSize);
        nError = WSAGetLastError();
        if (m_nReadEventCount > 0)
            --m_nReadEventCount;
        if (nRead > 0) {
            info.m_nDataLength += nRead;
            m_nReadFailCount = 0;
        }
    } while (nRead > 0);
    if (nError != WSAEWOULDBLOCK) {
        ++m_nReadFailCount;
        WiTrace(L"OPENSSL_read return %d, Error = %d, spSocket = %p, ThreadId = %d\n", 0, nError, this,
                GetCurrentThreadId());
    }
    return IsSoftReadFailure(nError) && m_nReadFailCount <= kReadFailLimit;
}

// Caller holds m_csLock: plaintext held by the library, raw bytes at the
// socket, or an FD_READ that came in during the delivery.
bool COverlappedSSL::HasMoreToRead()
{
    if (OPENSSL_pending(m_hSSL) > 0)
        return true;
    unsigned long nRaw = 0;
    if (IOCtl(FIONREAD, &nRaw) && nRaw != 0)
        return true;
    return m_nReadEventCount > 0;
}

void COverlappedSSL::OnClose(int nErrorCode)
{
    {
        CScopeLock lock(m_csLock);
        if (m_bClosed)
            return;
        // Close reports the end with what it was: 0 for a clean TLS close, the
        // library's error for a close without the close alert (10054) or a break.
        m_nPeerCloseError = nErrorCode != 0 ? nErrorCode : TlsPeerCloseError(m_hSSL);
    }
    if (nErrorCode != 0)
        WiTrace(L"COverlappedSSL::OnClose (Error = %d ), spSocket = %p\n", nErrorCode, this);
    Close();
}

