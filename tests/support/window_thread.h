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

private:
    WindowThread(const WindowThread&) = delete;
    WindowThread& operator=(const WindowThread&) = delete;
    static DWORD WINAPI Loop(LPVOID pParam);

    HANDLE m_hThread;
    DWORD m_nThreadId;
    HANDLE m_hReady;
};

// Dispatches the calling thread's messages until h is signalled; false after the time-out.
::testing::AssertionResult PumpUntil(HANDLE h, const std::string& what,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Dispatches the calling thread's messages until condition() holds.
::testing::AssertionResult PumpUntil(const std::function<bool()>& condition, const std::string& what,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(10));

#endif
