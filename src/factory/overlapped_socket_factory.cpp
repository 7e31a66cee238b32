// COverlappedSocketFactory: creation, the thread pool, Destory and CloseAllSocket.
#include "factory/overlapped_socket_factory.h"
#include "tls/overlapped_ssl.h"

#include "module/debug_trace.h"
#include "module/module.h"
#include "module/scope_lock.h"
#include "tls/tls_library.h"

IMPLEMENT_DYNAMIC(COverlappedSocketFactory, CObject)

namespace {

// Destory waits this long for a thread to end before it terminates it: only a
// notify object that never returns holds a worker that long.
const DWORD kThreadEndTimeout = 30000;
// ... and this long for the completions of the operations that closing the
// sockets aborted (they come within milliseconds).
const DWORD kOperationsDrainTimeout = 10000;

void CALLBACK DoNothingAPC(ULONG_PTR) {}

}  // namespace

COverlappedSocketFactory::COverlappedSocketFactory()
    : m_nSocketKind(-1), m_bSslStarted(FALSE), m_bWinsockStarted(FALSE), m_hCompletionPort(NULL),
      m_bDestroyed(FALSE), m_nWorkThreadCount(0), m_hRecvTimeoutThread(NULL), m_bTimerPassRunning(FALSE),
      m_dwLastPassTick(GetTickCount()), m_nOperationsInFlight(0), m_hOperationsDrained(NULL)
{
    InitializeCriticalSectionAndSpinCount(&m_csLock, 0);
}

COverlappedSocketFactory::~COverlappedSocketFactory()
{
    m_lstPendingTimerRequests.clear();
    m_mapTimerRequests.clear();
    m_mapClosingSockets.clear();
    m_mapConnectedSockets.clear();
    m_mapListenSockets.clear();
    m_mapOpenSockets.clear();
    m_vecWorkThreads.clear();
    if (m_hOperationsDrained != NULL)
        CloseHandle(m_hOperationsDrained);
    DeleteCriticalSection(&m_csLock);
}

int COverlappedSocketFactory::WorkThreadCountFor(int nThreads, int nProcessors)
{
    if (nThreads <= 0)
        return 2 * nProcessors;
    if (nThreads > 4 * nProcessors)
        return 4 * nProcessors;
    return nThreads;
}

std::shared_ptr<COverlappedSocketFactory> COverlappedSocketFactory::CreateObject(int nKind, int nThreads)
{
    std::shared_ptr<COverlappedSocketFactory> spFactory(new COverlappedSocketFactory);
    WSADATA data;
    if (WSAStartup(0x0202, &data) != 0)
        return std::shared_ptr<COverlappedSocketFactory>();
    if (LOBYTE(data.wVersion) != 2 || HIBYTE(data.wVersion) != 2) {
        WSACleanup();
        return std::shared_ptr<COverlappedSocketFactory>();
    }
    spFactory->m_bWinsockStarted = TRUE;
    // Every failure from here on is undone by Destory, which gives back what
    // was taken so far: WSAStartup, the port, the threads already started.
    LPTHREAD_START_ROUTINE pfnWorker = NULL;
    if (nKind == KIND_PLAIN) {
        pfnWorker = COverlappedSocket::WorkThread;
    } else if (nKind == KIND_SSL) {
        pfnWorker = COverlappedSSL::WorkThread;
        OPENSSL_init(0);
        OPENSSL_init(1);
        spFactory->m_bSslStarted = TRUE;
    }
    if (pfnWorker == NULL) {
        spFactory->Destory();
        return std::shared_ptr<COverlappedSocketFactory>();
    }
    spFactory->m_nSocketKind = nKind;
    if (!spFactory->StartThreads(pfnWorker, nThreads)) {
        spFactory->Destory();
        return std::shared_ptr<COverlappedSocketFactory>();
    }
    SwitchToThread();
    ULONG nLowFragmentation = 2;
    if (HeapSetInformation(g_hModuleHeap, HeapCompatibilityInformation, &nLowFragmentation, sizeof(nLowFragmentation)))
        WiTrace(L"Heap algorithm set to Low-fragmentation success\n");
    else
        WiTrace(L"Heap algorithm set to Low-fragmentation failed\n");
    return spFactory;
}

// The port, the workers and the time-out thread, made under the factory lock
// so that the time-out thread's first pass waits for the complete pool.
int COverlappedSocketFactory::StartThreads(LPTHREAD_START_ROUTINE pfnWorker, int nThreads)
{
    CScopeLock lock(m_csLock);
    m_hOperationsDrained = CreateEventW(NULL, TRUE, FALSE, NULL);
    if (m_hOperationsDrained == NULL)
        return 0;
    m_hCompletionPort = CreateIoCompletionPort(INVALID_HANDLE_VALUE, NULL, 0, 0);
    if (m_hCompletionPort == NULL)
        return 0;
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    int nCount = WorkThreadCountFor(nThreads, static_cast<int>(info.dwNumberOfProcessors));
    for (int i = 0; i < nCount; ++i) {
        HANDLE hThread = CreateThread(NULL, 0, pfnWorker, this, 0, NULL);
        if (hThread == NULL)
            return 0;
        m_vecWorkThreads.push_back(hThread);
        SwitchToThread();
    }
    m_nWorkThreadCount = static_cast<int>(m_vecWorkThreads.size());
    m_hRecvTimeoutThread = CreateThread(NULL, 0, RecvTimeoutThread, this, 0, NULL);
    return m_hRecvTimeoutThread != NULL ? 1 : 0;
}

void COverlappedSocketFactory::Lock() { EnterCriticalSection(&m_csLock); }
void COverlappedSocketFactory::Unlock() { LeaveCriticalSection(&m_csLock); }

void COverlappedSocketFactory::OperationIssued() { InterlockedIncrement(&m_nOperationsInFlight); }
void COverlappedSocketFactory::OperationCompleted()
{
    // The last completion after Destory closed the sockets wakes its wait.
    if (InterlockedDecrement(&m_nOperationsInFlight) == 0 && m_bDestroyed)
        SetEvent(m_hOperationsDrained);
}

void COverlappedSocketFactory::CloseAllSocket()
{
    SocketMap open;
    {
        CScopeLock lock(m_csLock);
        open = m_mapOpenSockets;
    }
    for (const auto& entry : open)
        entry.second->Close();
}

// The sockets are closed; the workers still have to take the completions of
// what closing them aborted, or those records would keep their sockets (and
// buffers) for ever. OperationCompleted sets the event with the last one.
void COverlappedSocketFactory::WaitForOperationsToFinish()
{
    if (InterlockedCompareExchange(&m_nOperationsInFlight, 0, 0) > 0)
        WaitForSingleObject(m_hOperationsDrained, kOperationsDrainTimeout);
}

void COverlappedSocketFactory::EndThread(HANDLE hThread, LPCWSTR pszTerminateMessage)
{
    // The one thread that can't be waited for is the caller itself (a hand-off
    // that could not start a thread): it ends on its quit packet, or on the
    // closed port, once it returns to its loop.
    if (GetThreadId(hThread) == GetCurrentThreadId()) {
        CloseHandle(hThread);
        return;
    }
    if (WaitForMultipleObjects(1, &hThread, FALSE, kThreadEndTimeout) == WAIT_TIMEOUT) {
        WiTrace(pszTerminateMessage);
        TerminateThread(hThread, static_cast<DWORD>(-1));
    }
    CloseHandle(hThread);
}

bool COverlappedSocketFactory::IsOwnThread()
{
    DWORD dwSelf = GetCurrentThreadId();
    CScopeLock lock(m_csLock);
    for (HANDLE hThread : m_vecWorkThreads)
        if (GetThreadId(hThread) == dwSelf)
            return true;
    return m_hRecvTimeoutThread != NULL && GetThreadId(m_hRecvTimeoutThread) == dwSelf;
}

void COverlappedSocketFactory::Destory()
{
    {
        CScopeLock lock(m_csLock);
        if (m_bDestroyed)
            return;
        m_bDestroyed = TRUE;
    }
    CloseAllSocket();
    CloseAllSocket();
    // Called from a notification on one of our own threads: that thread has
    // to go back to its loop before the completions drain and the threads
    // end, so the rest runs on a thread of its own.
    if (IsOwnThread() && HandOffEnd())
        return;
    FinishDestory();
}

DWORD WINAPI COverlappedSocketFactory::FinishDestoryThread(void* pParam)
{
    std::shared_ptr<COverlappedSocketFactory>* pHeld = static_cast<std::shared_ptr<COverlappedSocketFactory>*>(pParam);
    (*pHeld)->FinishDestory();
    delete pHeld;
    return 0;
}

bool COverlappedSocketFactory::HandOffEnd()
{
    std::shared_ptr<COverlappedSocketFactory>* pHeld = new std::shared_ptr<COverlappedSocketFactory>(shared_from_this());
    HANDLE hThread = CreateThread(NULL, 0, FinishDestoryThread, pHeld, 0, NULL);
    if (hThread == NULL) {
        delete pHeld;
        return false;
    }
    CloseHandle(hThread);
    return true;
}

// The part of Destory after the sockets are closed: drain, end the threads,
// give back the port, the TLS library and Winsock.
void COverlappedSocketFactory::FinishDestory()
{
    std::vector<HANDLE> workers;
    HANDLE hPort;
    {
        CScopeLock lock(m_csLock);
        workers = m_vecWorkThreads;
        hPort = m_hCompletionPort;
    }
    if (hPort != NULL && !workers.empty())
        WaitForOperationsToFinish();
    if (hPort != NULL)
        for (size_t i = 0; i < workers.size(); ++i)
            PostQueuedCompletionStatus(hPort, 0, 0, NULL);
    for (HANDLE hThread : workers)
        EndThread(hThread, L"In COverlappedSocketFactory::Destory, TerminateThread a worker thread\n");
    HANDLE hTimeoutThread;
    {
        CScopeLock lock(m_csLock);
        m_vecWorkThreads.clear();
        hTimeoutThread = m_hRecvTimeoutThread;
    }
    if (hTimeoutThread != NULL) {
        QueueUserAPCToRecvTimeoutThread(DoNothingAPC, 0);
        EndThread(hTimeoutThread, L"In COverlappedSocketFactory::Destory, TerminateThread a RecvTimeoutThread thread\n");
    }
    ReleaseEverything();
}

void COverlappedSocketFactory::ReleaseEverything()
{
    // What the maps and timer tables still hold is released after the lock
    // is left: a last reference runs a destructor, which calls OnDelete.
    SocketMap open, listening, closing, connected;
    TimerMap timers;
    std::list<CRecvTimerRequest> pending;
    CScopeLock lock(m_csLock);
    m_hRecvTimeoutThread = NULL;
    open.swap(m_mapOpenSockets);
    listening.swap(m_mapListenSockets);
    closing.swap(m_mapClosingSockets);
    connected.swap(m_mapConnectedSockets);
    timers.swap(m_mapTimerRequests);
    pending.swap(m_lstPendingTimerRequests);
    if (m_hCompletionPort != NULL) {
        CloseHandle(m_hCompletionPort);
        m_hCompletionPort = NULL;
    }
    if (m_hOperationsDrained != NULL) {
        CloseHandle(m_hOperationsDrained);
        m_hOperationsDrained = NULL;
    }
    if (m_bSslStarted) {
        OPENSSL_uninit();
        m_bSslStarted = FALSE;
    }
    if (m_bWinsockStarted) {
        WSACleanup();
        m_bWinsockStarted = FALSE;
    }
    lock.Unlock();
}

DWORD COverlappedSocketFactory::QueueUserAPCToRecvTimeoutThread(PAPCFUNC pfnProc, ULONG_PTR dwData)
{
    return QueueUserAPC(pfnProc, m_hRecvTimeoutThread, dwData);
}
