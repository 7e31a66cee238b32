// CWiSocket: the "SocketSink" window, its procedure, socket-event dispatch,
// the window timer, and the small socket operations of the comm objects.
#include "wicomm/wi_socket.h"
#include "wicomm/wi_tcp.h"

#include "module/debug_trace.h"
#include "module/ip_address.h"
#include "module/module.h"
#include "module/scope_lock.h"

IMPLEMENT_DYNAMIC(CWiSocket, CWiComm)

int CWiSocket::s_bSinkClassRegistered = 0;

namespace {

const wchar_t kSinkClassName[] = L"SocketSink";
const wchar_t kSinkWindowTitle[] = L"Socket Notification Sink";

}  // namespace

CWiSocket::CWiSocket() : m_hSocket(INVALID_SOCKET), m_hWnd(NULL), m_nTimerID(0), m_bInOnRead(0), m_lSelected(-1)
{
    if (s_bSinkClassRegistered == 0) {
        MyRegisterClass(g_hModuleInstance);
        s_bSinkClassRegistered = 1;
    }
    m_hWnd = CreateWindowExW(0, kSinkClassName, kSinkWindowTitle, WS_POPUP, 0, 0, 0, 0, NULL, NULL,
                             g_hModuleInstance, NULL);
    SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, (LONG_PTR)this);
}

CWiSocket::~CWiSocket() {}

WORD CWiSocket::MyRegisterClass(HINSTANCE hInstance)
{
    WNDCLASSEXW wc = {};
    wc.cbSize = sizeof(wc);
    wc.style = CS_HREDRAW | CS_VREDRAW;
    wc.lpfnWndProc = &CWiSocket::WndProc;
    wc.hInstance = hInstance;
    wc.hbrBackground = (HBRUSH)(INT_PTR)6;
    wc.lpszClassName = kSinkClassName;
    return RegisterClassExW(&wc);
}

int CWiSocket::GetLastError() { return WSAGetLastError(); }

int CWiSocket::GetBytesCanRead()
{
    u_long nBytes = 0;
    if (ioctlsocket(m_hSocket, FIONREAD, &nBytes) == 0)
        return (int)nBytes;
    int nError = WSAGetLastError();
    WiTrace(L"ioctlsocket(FIONREAD) return %d\n", nError);
    WSASetLastError(nError);
    return 0;
}

void CWiSocket::BeforeDelete()
{
    {
        CScopeLock lock(m_csComm);
        if (m_hWnd != NULL) {
            KillTimer(m_hWnd, (UINT_PTR)m_hWnd);
            if (m_hSocket != INVALID_SOCKET)
                SelectEvents(0);
            DestroyWindow(m_hWnd);
            m_hWnd = NULL;
        }
        m_nTimerID = 0;
        if (m_hSocket != INVALID_SOCKET) {
            closesocket(m_hSocket);
            m_hSocket = INVALID_SOCKET;
        }
    }
    CWiComm::BeforeDelete();
}

int CWiSocket::SetTimeouts(DWORD dwTimeout1, DWORD dwTimeout2, DWORD dwTimeout3, DWORD dwBytes)
{
    int nResult = CWiComm::SetTimeouts(dwTimeout1, dwTimeout2, dwTimeout3, dwBytes);
    AsyncSelect();
    return nResult;
}

void CWiSocket::OnWiAccept(int) {}
void CWiSocket::OnWiWrite(int) {}
void CWiSocket::OnWiRead(int) {}
void CWiSocket::OnWiClose(int) {}
void CWiSocket::OnWiOpen(int) {}
void CWiSocket::CloseProcess() {}

int CWiSocket::AsyncSelect()
{
    // Made under the lock that guards the queue: a call from Write on another
    // thread and one from the window thread can't cross, so the last mask set
    // always matches the queue, and a queued block always gets its FD_WRITE.
    // (WSAAsyncSelect only posts messages; it never waits for the window.)
    CScopeLock lock(m_csComm);
    bool bQueued = !m_listSendBuffer.empty();
    return SelectEvents(bQueued ? kMaskQueued : kMaskIdle);
}

int CWiSocket::SelectEvents(long lMask)
{
    CScopeLock lock(m_csComm);
    if (lMask == m_lSelected)
        return 0;
    m_lSelected = lMask;
    return WSAAsyncSelect(m_hSocket, m_hWnd, lMask != 0 ? WM_WISOCKET_NOTIFY : 0, lMask);
}

void CWiSocket::SetToNonBlocking(int bNonBlocking)
{
    if (bNonBlocking == 0)
        SelectEvents(0);
    u_long nMode = (u_long)bNonBlocking;
    ioctlsocket(m_hSocket, FIONBIO, &nMode);
    if (bNonBlocking != 0)
        AsyncSelect();
}

// ---- addresses ---------------------------------------------------------------

// The ports in network order, of either family.
long CWiSocket::GetLocalPort()
{
    sockaddr_storage addr = {};
    int nLength = sizeof(addr);
    if (getsockname(m_hSocket, (sockaddr*)&addr, &nLength) != 0)
        return 0;
    return htons(IpPort((sockaddr*)&addr));
}

long CWiSocket::GetPeerPort()
{
    sockaddr_storage addr = {};
    int nLength = sizeof(addr);
    if (getpeername(m_hSocket, (sockaddr*)&addr, &nLength) != 0)
        return 0;
    return htons(IpPort((sockaddr*)&addr));
}

// CWiSockAddr holds IPv4 only: an IPv6 name doesn't fit its record.
int CWiSocket::GetLocalAddr(CWiSockAddr& addr)
{
    sockaddr_in record = {};
    int nLength = sizeof(record);
    if (getsockname(m_hSocket, (sockaddr*)&record, &nLength) != 0)
        return 0;
    addr = record;   // drops the cached text
    return 1;
}

int CWiSocket::GetPeerAddr(CWiSockAddr& addr)
{
    sockaddr_in record = {};
    int nLength = sizeof(record);
    if (getpeername(m_hSocket, (sockaddr*)&record, &nLength) != 0)
        return 0;
    addr = record;
    return 1;
}

int CWiSocket::GetLocalAddr(CWiInetAddr& addr)
{
    sockaddr_storage record = {};
    int nLength = sizeof(record);
    if (getsockname(m_hSocket, (sockaddr*)&record, &nLength) != 0)
        return 0;
    return addr.Assign((sockaddr*)&record, nLength);
}

int CWiSocket::GetPeerAddr(CWiInetAddr& addr)
{
    sockaddr_storage record = {};
    int nLength = sizeof(record);
    if (getpeername(m_hSocket, (sockaddr*)&record, &nLength) != 0)
        return 0;
    return addr.Assign((sockaddr*)&record, nLength);
}

// ---- the window procedure ------------------------------------------------------

std::shared_ptr<CWiSocket> CWiSocket::ObjectOfWindow(HWND hWnd)
{
    // Validity test and strong reference under one lock: the object can't
    // leave the registry between them.
    CScopeLock lock(ms_csCommSet);
    CWiSocket* pSocket = (CWiSocket*)GetWindowLongPtrW(hWnd, GWLP_USERDATA);
    if (pSocket == nullptr || !IsValidObject(pSocket))
        return nullptr;
    return std::static_pointer_cast<CWiSocket>(pSocket->shared_from_this());
}

LRESULT CALLBACK CWiSocket::WndProc(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam)
{
    if (hWnd == NULL || !IsWindow(hWnd))
        return 0;
    if (nMessage == WM_NCDESTROY) {
        // A window that outlives its object (stack stopped) must never lead a
        // later object at the same address to its messages.
        SetWindowLongPtrW(hWnd, GWLP_USERDATA, 0);
        return DefWindowProcW(hWnd, nMessage, wParam, lParam);
    }
    std::shared_ptr<CWiSocket> spSocket = ObjectOfWindow(hWnd);
    if (!spSocket)
        return DefWindowProcW(hWnd, nMessage, wParam, lParam);
    // Cleanup on an application thread releases the objects one after another:
    // what the peers of those already released cause meanwhile notifies nothing.
    if (IsStopping() && (nMessage == WM_TIMER || nMessage == WM_WISOCKET_NOTIFY || nMessage == WM_WISOCKET_CLOSE))
        return 0;
    // Exceptions of notifications that pass on must not cross the window system.
    try {
        switch (nMessage) {
        case WM_PAINT: {
            PAINTSTRUCT ps;
            BeginPaint(hWnd, &ps);
            EndPaint(hWnd, &ps);
            return 0;
        }
        case WM_TIMER:
            spSocket->OnTimer(wParam);
            return 0;
        case WM_WISOCKET_NOTIFY:
            spSocket->OnSocketNotify(wParam, lParam);
            return 0;
        case WM_CLOSE:
            if (IsStopping() && spSocket->IsKindOf(RUNTIME_CLASS(CWiTcp))) {
                static_cast<CWiTcp*>(spSocket.get())->ReleaseAtCleanup();
                return CWiTcp::RELEASED_AT_CLEANUP;
            }
            return DefWindowProcW(hWnd, nMessage, wParam, lParam);
        case WM_WISOCKET_CLOSE:
            if ((SOCKET)wParam == spSocket->m_hSocket && lParam == 32)
                spSocket->CloseProcess();
            return 0;
        default:
            return DefWindowProcW(hWnd, nMessage, wParam, lParam);
        }
    } catch (CException* e) {
        e->Delete();
    } catch (...) {
    }
    return 0;
}

LRESULT CWiSocket::OnSocketNotify(WPARAM wParam, LPARAM lParam)
{
    if ((SOCKET)wParam != m_hSocket || m_hWnd == NULL)
        return 0;
    int nEvent = (int)(lParam & 0xFFFF);
    int nError = (int)(short)((lParam >> 16) & 0xFFFF);
    std::shared_ptr<CWiComm> spSelf = shared_from_this();
    switch (nEvent) {
    case FD_READ:
        OnReadEvent(nError);
        break;
    case FD_WRITE:
        {
            // This FD_WRITE is used up: after a partial send (no refusal, so
            // Winsock re-enables nothing) the next selection must be made again.
            CScopeLock lock(m_csComm);
            m_lSelected = -1;
        }
        OnWiWrite(nError);
        break;
    case FD_ACCEPT:
        OnWiAccept(nError);
        break;
    case FD_CONNECT:
        StopTimer();
        OnWiOpen(nError);
        break;
    case FD_CLOSE:
        // A peer's close only informs the application; it decides to Close.
        StopTimer();
        if (IsKindOf(RUNTIME_CLASS(CWiTcp)) && !static_cast<CWiTcp*>(this)->ReportTruncatedClose())
            break;
        CallCloseNotify(spSelf);
        break;
    default:
        break;
    }
    return 0;
}

void CWiSocket::OnReadEvent(int nError)
{
    HWND hWnd = m_hWnd;
    // The thread's last error stands in for a zero error word; one left by an
    // unrelated earlier call on this thread must not pass for this event's.
    WSASetLastError(0);
    try {
        if (IsWindow(hWnd) && m_bInOnRead == 0) {
            bool bRead = true;
            if (m_nSSLMode == 0 || m_nSSLMode == 1 || GetBytesCanRead() > 0) {
                if (nError == 0)
                    nError = WSAGetLastError();
            } else if (nError == 0) {
                nError = WSAGetLastError();
                bRead = nError != 0;
            }
            if (bRead) {
                m_bInOnRead.exchange(1);
                OnWiRead(nError);
                m_bInOnRead.exchange(0);
                return;
            }
        }
        if (IsWindow(hWnd) && m_bInOnRead == 0)
            AsyncSelect();
    } catch (CException* e) {
        m_bInOnRead.exchange(0);
        e->Delete();
    } catch (...) {
        m_bInOnRead.exchange(0);
    }
}

// ---- the timer -----------------------------------------------------------------

bool CWiSocket::OnWindowThread() const
{
    DWORD nProcess = 0;
    DWORD nThread = GetWindowThreadProcessId(m_hWnd, &nProcess);
    return nThread == GetCurrentThreadId() && nProcess == GetCurrentProcessId();
}

// On Windows SetTimer refuses a window of another thread: a SetTimeouts from
// such a thread stores the time-outs, and the window thread starts the timer
// with them at the next delivery. A request is never deferred, so a connect
// time-out can't arrive after the connect and act as a read time-out.
void CWiSocket::StartTimer(DWORD dwPeriod, bool bRestart)
{
    CScopeLock lock(m_csComm);
    if (m_hWnd == NULL || dwPeriod == 0)
        return;
    if (m_nTimerID != 0) {
        if (!bRestart)
            return;
        KillTimer(m_hWnd, (UINT_PTR)m_hWnd);
        m_nTimerID = 0;
    }
    m_nTimerID = SetTimer(m_hWnd, (UINT_PTR)m_hWnd, dwPeriod, NULL);
}

void CWiSocket::StopTimer()
{
    CScopeLock lock(m_csComm);
    if (m_nTimerID != 0) {
        KillTimer(m_hWnd, (UINT_PTR)m_hWnd);
        m_nTimerID = 0;
    }
}

void CWiSocket::OnTimer(UINT_PTR nIDEvent)
{
    if (m_hWnd == NULL || !IsWindow(m_hWnd) || nIDEvent != (UINT_PTR)m_hWnd)
        return;
    StopTimer();
    SelectEvents(0);
    bool bNoTimeouts;
    {
        CScopeLock lock(m_csComm);
        bNoTimeouts = m_dwTimeout1 == 0 && m_dwTimeout2 == 0 && m_dwTimeout3 == 0;
    }
    if (bNoTimeouts) {
        // A timer left over from earlier time-outs: the selection must not
        // stay off, or the object would get no event again.
        AsyncSelect();
        return;
    }
    if (IsOpen())
        OnWiRead(-1);
    else
        OnWiOpen(-1);
}
