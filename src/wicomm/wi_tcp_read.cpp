// CWiTcp read path: read events and time-outs become OnReadComplete and
// OnError. One read buffer per object; the selection is armed again at the end.
#include "wicomm/wi_tcp.h"

#include <algorithm>

#include "module/debug_trace.h"
#include "module/scope_lock.h"
#include "tls/tls_peer_close.h"

namespace {

const int kMaxReadDepth = 10;

// Counts one running OnWiRead for the length of a scope.
class CReadDepth {
public:
    explicit CReadDepth(std::atomic<int>& nDepth) : m_nDepth(nDepth) { ++m_nDepth; }
    ~CReadDepth() { --m_nDepth; }

private:
    std::atomic<int>& m_nDepth;
};

int Pending(HSSL hSSL) { return std::max(0, OPENSSL_pending(hSSL)); }

}  // namespace

void CWiTcp::OnWiRead(int nErrorCode)
{
    CScopeLock lock(m_csComm);
    CReadDepth depth(m_nReadDepth);
    if (m_nType != TYPE_CONNECT)
        return;
    if (nErrorCode == -1) {
        ReadTimedOut(lock);
        return;
    }
    if (IsTls() && m_nReadDepth > kMaxReadDepth && StopAtDepthLimit()) {
        AsyncSelect();
        return;
    }
    if (IsTls() && OPENSSL_pending(m_hSSL) <= 0 && GetBytesCanRead() == 0)
        return;
    if (!IsTls() && m_pReadBuffer == nullptr) {
        WiTrace(L"CWiTcp::OnWiRead  2\n");
        WiSetTimeouts(m_dwTimeout1, m_dwTimeout2, m_dwTimeout3, 0);
        AsyncSelect();
        return;
    }
    if (nErrorCode != 0 && nErrorCode != WSAEWOULDBLOCK) {
        WiTrace(L"CWiTcp::OnWiRead\xFF08nErrorCode = %d\xFF09\n", nErrorCode);
        if (ReportReadError(lock, nErrorCode))
            WiTrace(L"CWiTcp::OnWiRead  5\n");
        return;
    }
    // Full buffer; a read size lowered below what is held counts as full too,
    // so the room offered to recv is never negative.
    if (m_nBytesToRead > 0 && m_nBytesRead >= m_nBytesToRead) {
        if (Deliver(lock, m_nBytesRead))
            AsyncSelect();
        return;
    }
    int nAvailable = GetBytesCanRead();
    if (IsTls())
        ReadTls(lock);
    else
        ReadPlain(lock, nAvailable);
}

// Steps 1 to 6 of a delivery; false when the object died in the notification.
bool CWiTcp::Deliver(CScopeLock& lock, int nCount)
{
    // Counted under the lock before it is left: SetTimeouts on another thread
    // or a Close inside OnReadComplete must not free the buffer that the
    // application is being handed (see PrepareReadBuffer, BeforeDelete).
    ++m_nDeliveries;
    const char* pData = m_pReadBuffer;
    std::shared_ptr<CWiComm> spSelf = shared_from_this();
    lock.Unlock();
    int bValid = CallReadCompleteNotify(pData, nCount, spSelf);
    lock.Lock();
    --m_nDeliveries;
    lock.Unlock();
    if (!bValid)
        return false;
    BufferProcessAfterReadCallback();
    lock.Lock();
    m_nBytesRead = 0;
    WiSetTimeouts(m_dwTimeout1, m_dwTimeout2, m_dwTimeout3, 0);
    return true;
}

void CWiTcp::ReadTimedOut(CScopeLock& lock)
{
    int nCount = m_pReadBuffer != nullptr ? m_nBytesRead : 0;
    if (!Deliver(lock, nCount)) {
        WiTrace(L"CWiTcp::OnWiRead  3\n");
        return;
    }
    AsyncSelect();
    WiTrace(L"CWiTcp::OnWiRead  4\n");
}

// Held data goes out first unless deliveries wait for a full count; then
// OnError. Returns with the lock released: true if the object stays valid
// and armed, false if it died in a notification.
bool CWiTcp::ReportReadError(CScopeLock& lock, int nErrorCode)
{
    if (!m_bBytesTimeoutValid && m_nBytesRead > 0 && !Deliver(lock, m_nBytesRead))
        return false;
    lock.Unlock();
    if (!CallErrorNotify(READ, nErrorCode, shared_from_this()))
        return false;
    AsyncSelect();
    return true;
}

bool CWiTcp::StopAtDepthLimit()
{
    if (OPENSSL_pending(m_hSSL) <= 0)
        return true;
    return GetBytesCanRead() > 0 && OPENSSL_pending(m_hSSL) > 0;
}

void CWiTcp::BufferProcessAfterReadCallback()
{
    if (m_bInReadNotify)
        return;
    CScopeLock lock(m_csComm);
    if (m_pNextReadBuffer == nullptr || m_nDeliveries > 0)
        return;
    delete[] m_pReadBuffer;
    m_pReadBuffer = m_pNextReadBuffer;
    m_nBytesToRead = m_nNextBytesToRead;
    m_nReadBufferSize = m_nNextReadBufferSize;
    m_pNextReadBuffer = nullptr;
    m_nNextBytesToRead = 0;
    m_nNextReadBufferSize = 0;
}

void CWiTcp::ReadPlain(CScopeLock& lock, int nAvailable)
{
    if (nAvailable == 0) {
        WiTrace(L"CWiTcp::OnWiRead  8\n");
        AsyncSelect();
        return;
    }
    int nWant = std::min(m_nBytesToRead - m_nBytesRead, nAvailable);
    SetToNonBlocking(0);
    int nLast = recv(m_hSocket, m_pReadBuffer + m_nBytesRead, nWant, 0);
    int nError = WSAGetLastError();
    SetToNonBlocking(1);
    // The selection was off around recv: an FD_CLOSE of that gap is lost
    // (under Wine). Having taken all there was, look at the socket again.
    if (nLast == 0 || (nLast == nAvailable && PeerHasClosed()))
        PostPeerClose();
    WSASetLastError(nError);
    if (nLast == 0) {
        AsyncSelect();   // the peer has closed: FD_CLOSE reports it
        return;
    }
    if (nLast == SOCKET_ERROR) {
        ReportReadError(lock, nError);
        return;
    }
    m_nBytesRead += nLast;
    if (m_bBytesTimeoutValid && m_nBytesRead < m_nBytesToRead) {
        AsyncSelect();   // the data waits for more
        return;
    }
    if (Deliver(lock, m_nBytesRead))
        AsyncSelect();
}

// A TLS connection whose peer closed TCP without the TLS close alert (data
// may have been cut off) is reported with OnError(READ, WSAECONNRESET)
// before its OnClose. False if the object died in that notification.
bool CWiTcp::ReportTruncatedClose()
{
    if (!IsTls())
        return true;
    int nError;
    {
        CScopeLock lock(m_csComm);
        nError = TlsPeerCloseError(m_hSSL);
    }
    if (nError != WSAECONNRESET)
        return true;
    return CallErrorNotify(READ, nError, shared_from_this()) != 0;
}

// Caller holds m_csComm, with the socket non-blocking: the peer's FIN is all
// that is left to read.
bool CWiTcp::PeerHasClosed()
{
    char byte;
    return recv(m_hSocket, &byte, 1, MSG_PEEK) == 0;
}

// Reports the peer's close through the window's own socket event, as the
// platform would have.
void CWiTcp::PostPeerClose()
{
    PostMessageW(m_hWnd, WM_WISOCKET_NOTIFY, (WPARAM)m_hSocket, WSAMAKESELECTREPLY(FD_CLOSE, 0));
}

// One TLS read: size the buffer to what is there, fill it, deliver, and read
// on by itself while the library still holds data.
void CWiTcp::ReadTls(CScopeLock& lock)
{
    if (m_pReadBuffer == nullptr || m_nBytesRead == 0) {
        m_nBytesRead = 0;
        int nPending = Pending(m_hSSL);
        WiSetTimeouts(m_dwTimeout1, m_dwTimeout2, m_dwTimeout3, (DWORD)(GetBytesCanRead() + nPending));
    }
    if (m_pReadBuffer == nullptr) {
        AsyncSelect();
        return;
    }
    int nLast = m_nBytesRead < m_nBytesToRead ? FillFromTls() : 0;
    if (m_nBytesRead > 0) {
        if (!Deliver(lock, m_nBytesRead))
            return;
    } else {
        WiSetTimeouts(m_dwTimeout1, m_dwTimeout2, m_dwTimeout3, 0);
    }
    nLast += OPENSSL_read(m_hSSL, m_pReadBuffer, 0);
    int nPending = Pending(m_hSSL);
    if (nLast > 0 && GetBytesCanRead() + nPending != 0) {
        lock.Unlock();
        OnWiRead(0);
        lock.Lock();
    }
    AsyncSelect();
}

// Up to three attempts; returns the result of the last read call made.
int CWiTcp::FillFromTls()
{
    int nLast = 0;
    int nPending = OPENSSL_pending(m_hSSL);
    if (nPending > 0)
        nLast = ReadTlsInto(nPending);
    if (m_nBytesRead < m_nBytesToRead)
        nLast = ReadTlsInto(m_nBytesToRead - m_nBytesRead);
    nPending = OPENSSL_pending(m_hSSL);
    if (nPending > 0 && m_nBytesRead < m_nBytesToRead)
        nLast = ReadTlsInto(nPending);
    return nLast;
}

// Reads at most nMax bytes, and never past m_nBytesToRead.
int CWiTcp::ReadTlsInto(int nMax)
{
    int nRoom = std::min(m_nBytesToRead - m_nBytesRead, nMax);
    int nRead = OPENSSL_read(m_hSSL, m_pReadBuffer + m_nBytesRead, nRoom);
    if (nRead > 0)
        m_nBytesRead += nRead;
    return nRead;
}
