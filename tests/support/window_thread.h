// A thread with a message loop, for objects that get their events as window
// messages: start it, run functions on it, and pump messages on the calling
// thread until an event is set or a time-out passes.
#ifndef WISOCK_TESTS_WINDOW_THREAD_H
#define WISOCK_TESTS_WINDOW_THREAD_H

#include <winsock2.h>
#include <windows.h>

#include <chrono>
#include <functional>

#include <gtest/gtest.h>

class WindowThread {
public:
    WindowThread();    // starts the thread and waits until its queue exists
    ~WindowThread();   // ends the loop and joins the thread

    // Runs fn on the thread and waits until it returned; false after the time-out.
    ::testing::AssertionResult Run(const std::function<void()>& fn,
                                   std::chrono::milliseconds timeout = std::chrono::seconds(10));
    DWORD ThreadId() const { return m_nThreadId; }
    // Set after the thread has dispatched a WM_TIMER (manual reset).
    HANDLE TimerDispatched() const { return m_hTimerDispatched; }

private:
    WindowThread(const WindowThread&) = delete;
    WindowThread& operator=(const WindowThread&) = delete;
    static DWORD WINAPI Loop(LPVOID pParam);

    HANDLE m_hThread;
    DWORD m_nThreadId;
    HANDLE m_hReady;
    HANDLE m_hTimerDispatched;
};

// Dispatches the calling thread's messages until condition() holds (one that
// only the messages of this thread can make true).
::testing::AssertionResult PumpUntil(const std::function<bool()>& condition, const std::string& what,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(10));

#endif
