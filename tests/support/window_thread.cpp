#include "support/window_thread.h"

namespace {

const UINT kRunMessage = WM_APP + 0x57;   // wParam: the task

struct Task {
    std::function<void()> fn;
    HANDLE hDone;
    LONG nRefs;   // the caller and the thread; the later one frees it
};

void Release(Task* pTask)
{
    if (InterlockedDecrement(&pTask->nRefs) == 0) {
        CloseHandle(pTask->hDone);
        delete pTask;
    }
}

// Wine connects a process to its desktop and loads the display driver on the
// process's first window calls. Done once here, on the thread that makes the
// window threads and before any of them runs: a window thread once hung in
// its first RegisterClassExW while another thread of the process started up.
bool FirstWindowOfTheProcess()
{
    HWND hWnd = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, 0, 0, NULL, NULL, NULL, NULL);
    MSG msg;
    PeekMessageW(&msg, NULL, 0, 0, PM_NOREMOVE);
    return hWnd != NULL && DestroyWindow(hWnd) != FALSE;
}

}  // namespace

WindowThread::WindowThread()
    : m_hThread(NULL), m_nThreadId(0), m_hReady(CreateEventW(NULL, TRUE, FALSE, NULL)),
      m_hTimerDispatched(CreateEventW(NULL, TRUE, FALSE, NULL))
{
    static const bool s_bWindowsReady = FirstWindowOfTheProcess();
    (void)s_bWindowsReady;
    m_hThread = CreateThread(NULL, 0, &WindowThread::Loop, this, 0, &m_nThreadId);
    WaitForSingleObject(m_hReady, 10000);
}

WindowThread::~WindowThread()
{
    PostThreadMessageW(m_nThreadId, WM_QUIT, 0, 0);
    WaitForSingleObject(m_hThread, 10000);
    CloseHandle(m_hThread);
    CloseHandle(m_hReady);
    CloseHandle(m_hTimerDispatched);
}

DWORD WINAPI WindowThread::Loop(LPVOID pParam)
{
    MSG msg;
    PeekMessageW(&msg, NULL, 0, 0, PM_NOREMOVE);   // makes the queue
    SetEvent(static_cast<WindowThread*>(pParam)->m_hReady);
    while (GetMessageW(&msg, NULL, 0, 0) > 0) {
        if (msg.hwnd == NULL && msg.message == kRunMessage) {
            Task* pTask = reinterpret_cast<Task*>(msg.wParam);
            pTask->fn();
            SetEvent(pTask->hDone);
            Release(pTask);
            continue;
        }
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
        if (msg.message == WM_TIMER)
            SetEvent(static_cast<WindowThread*>(pParam)->m_hTimerDispatched);
    }
    return 0;
}

::testing::AssertionResult WindowThread::Run(const std::function<void()>& fn, std::chrono::milliseconds timeout)
{
    Task* pTask = new Task{fn, CreateEventW(NULL, TRUE, FALSE, NULL), 2};
    if (!PostThreadMessageW(m_nThreadId, kRunMessage, (WPARAM)pTask, 0)) {
        CloseHandle(pTask->hDone);
        delete pTask;
        return ::testing::AssertionFailure() << "could not post a task to the window thread";
    }
    DWORD rc = WaitForSingleObject(pTask->hDone, (DWORD)timeout.count());
    Release(pTask);
    if (rc == WAIT_OBJECT_0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the window thread did not finish a task within " << timeout.count()
                                         << " ms";
}

namespace {

void PumpOnce()
{
    MSG msg;
    while (PeekMessageW(&msg, NULL, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
    }
}

}  // namespace

::testing::AssertionResult PumpUntil(const std::function<bool()>& condition, const std::string& what,
                                     std::chrono::milliseconds timeout)
{
    const ULONGLONG deadline = GetTickCount64() + timeout.count();
    for (;;) {
        PumpOnce();
        if (condition())
            return ::testing::AssertionSuccess();
        ULONGLONG now = GetTickCount64();
        if (now >= deadline)
            break;
        // Only a message dispatched here can make the condition true.
        MsgWaitForMultipleObjects(0, NULL, FALSE, (DWORD)(deadline - now), QS_ALLINPUT);
    }
    return ::testing::AssertionFailure() << "after " << timeout.count() << " ms of pumping still not true: " << what;
}
