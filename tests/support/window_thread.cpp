#include "support/window_thread.h"

#include <tlhelp32.h>

#include <set>
#include <sstream>
#include <vector>

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

}  // namespace

namespace {

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

namespace {

// What a stuck thread is doing, for the failure message: the code addresses
// found on its stack (a scan, not a walk: some are stale), as module+offset.
std::string StackScan(HANDLE hThread)
{
    CONTEXT context = {};
    context.ContextFlags = CONTEXT_CONTROL;
    std::vector<ULONG_PTR> stack(4096);   // before the suspension: the thread may hold the heap's lock
    if (SuspendThread(hThread) == (DWORD)-1)
        return "(thread not suspended)";
    BOOL bGot = GetThreadContext(hThread, &context);
    SIZE_T nRead = 0;
    for (size_t nWords = stack.size(); bGot && nWords >= 512 && nRead == 0; nWords /= 2)
        ReadProcessMemory(GetCurrentProcess(), (LPCVOID)context.Rsp, stack.data(), nWords * sizeof(ULONG_PTR), &nRead);
    ResumeThread(hThread);
    if (!bGot)
        return "(no context)";
    std::ostringstream out;
    std::set<std::string> seen;
    std::vector<ULONG_PTR> addresses(1, (ULONG_PTR)context.Rip);
    addresses.insert(addresses.end(), stack.begin(), stack.begin() + nRead / sizeof(ULONG_PTR));
    for (ULONG_PTR address : addresses) {
        HMODULE hModule = NULL;
        if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                (LPCWSTR)address, &hModule))
            continue;
        char szPath[MAX_PATH] = {};
        GetModuleFileNameA(hModule, szPath, MAX_PATH);
        const char* pName = strrchr(szPath, '\\') != nullptr ? strrchr(szPath, '\\') + 1 : szPath;
        std::ostringstream entry;
        entry << pName << "+0x" << std::hex << (address - (ULONG_PTR)hModule);
        if (seen.insert(entry.str()).second && seen.size() <= 40)
            out << " " << entry.str();
    }
    return out.str();
}

// The stacks of the process's other threads: the one a stuck thread waits
// for is among them.
std::string OtherStacks(DWORD nStuckThread)
{
    std::ostringstream out;
    HANDLE hSnapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL bMore = Thread32First(hSnapshot, &entry); bMore; bMore = Thread32Next(hSnapshot, &entry)) {
        if (entry.th32OwnerProcessID != GetCurrentProcessId() || entry.th32ThreadID == nStuckThread ||
            entry.th32ThreadID == GetCurrentThreadId())
            continue;
        HANDLE hThread = OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT, FALSE, entry.th32ThreadID);
        if (hThread == NULL)
            continue;
        out << "\n  thread " << entry.th32ThreadID << ":" << StackScan(hThread);
        CloseHandle(hThread);
    }
    CloseHandle(hSnapshot);
    return out.str();
}

}  // namespace

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
                                         << " ms; on its stack:" << StackScan(m_hThread) << OtherStacks(m_nThreadId);
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
