// CWiTcp end of life (Close from any thread, teardown on the window thread)
// and the accepting side of a listening object.
#include "wicomm/wi_tcp.h"

#include <new>

#include "module/debug_trace.h"
#include "module/scope_lock.h"

int CWiTcp::Close()
{
    if (!IsValidObject(this))
        return 1;
    HWND hWnd = m_hWnd;
    // During a teardown (OnClose called from OnWiClose) the window is already
    // gone: there is nothing to carry a close, and nothing left to do.
    if (hWnd == NULL)
        return 1;
    DWORD nProcess = 0;
    DWORD nThread = GetWindowThreadProcessId(hWnd, &nProcess);
    if (nThread == GetCurrentThreadId() && nProcess == GetCurrentProcessId())
        SendMessageW(hWnd, WM_WISOCKET_CLOSE, (WPARAM)m_hSocket, 32);
    else
        PostMessageW(hWnd, WM_WISOCKET_CLOSE, (WPARAM)m_hSocket, 32);
    return 1;
}

void CWiTcp::CloseProcess()
{
    if (!IsValidObject(this))
        return;
    if (m_nType == TYPE_CONNECT || m_nType == TYPE_LISTEN)
        OnWiClose(0);
    else
        BeforeDelete();
}

void CWiTcp::OnWiClose(int)
{
    try {
        {
            CScopeLock lock(m_csComm);
            if (m_hSocket == INVALID_SOCKET && m_bCloseNotified)
                return;
            if (m_hSocket != INVALID_SOCKET)
                SetToNonBlocking(0);
            if (m_hWnd != NULL) {
                KillTimer(m_hWnd, (UINT_PTR)m_hWnd);
                DestroyWindow(m_hWnd);
                m_hWnd = NULL;
            }
            if (IsTls() && m_hSSL != 0) {
                OPENSSL_shutdown(m_hSSL);
                m_hSSL = 0;
            }
            if (m_hSocket != INVALID_SOCKET) {
                shutdown(m_hSocket, SD_BOTH);
                closesocket(m_hSocket);
                m_hSocket = INVALID_SOCKET;
            }
        }
        if (m_bDeleting)
            return;
        if (m_nType == TYPE_CONNECT || m_nType == TYPE_LISTEN) {
            if (!CallCloseNotify(shared_from_this()))
                return;
            m_bConnected = 0;
            m_nType = TYPE_UNKNOWN;
        }
        BeforeDelete();
    } catch (CException* e) {
        e->Delete();
    } catch (...) {
    }
}

void CWiTcp::BeforeDelete()
{
    if (!IsValidObject(this) || m_bDeleting)
        return;
    m_bDeleting.exchange(1);
    {
        CScopeLock lock(m_csComm);
        FreeReadBuffers();
        ClearSendBuffer();
    }
    CWiSocket::BeforeDelete();
}

// Caller holds m_csComm. Closed inside OnReadComplete, the application still
// reads the buffer it was handed: then the destructor frees both buffers.
void CWiTcp::FreeReadBuffers()
{
    if (m_nDeliveries > 0)
        return;
    delete[] m_pReadBuffer;
    delete[] m_pNextReadBuffer;
    m_pReadBuffer = m_pNextReadBuffer = nullptr;
    m_nBytesToRead = m_nReadBufferSize = m_nBytesRead = 0;
    m_nNextBytesToRead = m_nNextReadBufferSize = 0;
}

void CWiTcp::OnWiAccept(int nErrorCode)
{
    if (nErrorCode != 0 && !CallErrorNotify(OPEN, nErrorCode, shared_from_this()))
        return;
    sockaddr_storage addr = {};   // either family
    int nLength = sizeof(addr);
    SOCKET hAccepted = accept(m_hSocket, (sockaddr*)&addr, &nLength);
    if (hAccepted == INVALID_SOCKET)
        return;
    std::shared_ptr<CWiTcp> spNew;
    try {
        spNew.reset(new CWiTcp(m_nSSLMode));
    } catch (std::bad_alloc&) {
        closesocket(hAccepted);
        return;
    }
    AddCommToCommSet(spNew);
    spNew->m_hSocket = hAccepted;
    spNew->m_nType = TYPE_CONNECT;
    spNew->m_spListenComm = std::static_pointer_cast<CWiTcp>(shared_from_this());
    if (m_nSSLMode == 1 && !spNew->HandshakeAsServer(hAccepted)) {
        WiTrace(L"OPENSSL_accept return null\n");
        spNew->Close();
        return;
    }
    spNew->m_pNotifyObject = m_pNotifyObject;
    spNew->OnWiOpen(0);
}

bool CWiTcp::HandshakeAsServer(SOCKET hAccepted)
{
    SetToNonBlocking(0);
    m_hSSL = OPENSSL_accept(hAccepted);
    SetToNonBlocking(1);
    return m_hSSL != 0;
}

// Cleanup on an application thread must not free buffers under a running
// delivery, nor end a TLS handle while the window thread writes on it: the
// window thread does the release itself. A window thread that has ended, or
// that runs no message loop for the whole wait, is released from here.
void CWiTcp::ReleaseOnWindowThread()
{
    const UINT kWaitMs = 10000;
    HWND hWnd = NULL;
    {
        CScopeLock lock(m_csComm);
        hWnd = m_hWnd;
    }
    DWORD_PTR nAnswer = 0;
    if (hWnd != NULL && !OnWindowThread() &&
        SendMessageTimeoutW(hWnd, WM_CLOSE, 0, 0, SMTO_NORMAL, kWaitMs, &nAnswer) != 0 &&
        nAnswer == (DWORD_PTR)RELEASED_AT_CLEANUP)
        return;
    ReleaseAtCleanup();
}

void CWiTcp::ReleaseAtCleanup()
{
    CScopeLock lock(m_csComm);
    m_bDeleting.exchange(1);
    if (m_hSSL != 0) {
        OPENSSL_shutdown(m_hSSL);
        m_hSSL = 0;
    }
    if (m_hSocket != INVALID_SOCKET) {
        closesocket(m_hSocket);
        m_hSocket = INVALID_SOCKET;
    }
    if (m_hWnd != NULL) {
        // The window belongs to its thread: destroyed here on that thread,
        // else closed by DefWindowProcW there (the object is out of the registry by then).
        SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, 0);
        if (OnWindowThread())
            DestroyWindow(m_hWnd);
        else
            PostMessageW(m_hWnd, WM_CLOSE, 0, 0);
        m_hWnd = NULL;
        m_nTimerID = 0;
    }
    FreeReadBuffers();
    m_nType = TYPE_UNKNOWN;
    m_bConnected = 0;
    for (SendBlock& block : m_listSendBuffer)
        delete[] block.pData;
    m_listSendBuffer.clear();
    m_nSendBufferSize = 0;
}
