// Waiting in tests: on events and counters, always with a time-out, and with
// a failure message that says what did not happen.
#ifndef WISOCK_TESTS_WAIT_H
#define WISOCK_TESTS_WAIT_H

#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include <gtest/gtest.h>

const std::chrono::milliseconds kDefaultWait = std::chrono::seconds(10);

// Waits for a Win32 event (or any waitable handle).
::testing::AssertionResult WaitForHandle(HANDLE h, const std::string& what,
                                         std::chrono::milliseconds timeout = kDefaultWait);

// A manual-reset Win32 event that closes itself.
class TestEvent {
public:
    TestEvent();
    ~TestEvent();
    HANDLE Handle() const { return m_h; }
    void Set() { SetEvent(m_h); }
    bool IsSet() const { return WaitForSingleObject(m_h, 0) == WAIT_OBJECT_0; }
    ::testing::AssertionResult Wait(const std::string& what, std::chrono::milliseconds timeout = kDefaultWait) const
    {
        return WaitForHandle(m_h, what, timeout);
    }

private:
    TestEvent(const TestEvent&) = delete;
    TestEvent& operator=(const TestEvent&) = delete;
    HANDLE m_h;
};

// For objects whose state tests look at: Changed() after each change, and
// WaitFor tests a condition again at each change until it holds.
class ChangeSignal {
public:
    void Changed();
    ::testing::AssertionResult WaitFor(const std::function<bool()>& condition, const std::string& what,
                                       std::chrono::milliseconds timeout = kDefaultWait) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    unsigned long long m_nChanges = 0;
};

// A counter that threads bump and tests wait on.
class EventCounter {
public:
    void Add(long n = 1)
    {
        m_count += n;
        m_signal.Changed();
    }
    long Get() const { return m_count; }
    ::testing::AssertionResult WaitAtLeast(long n, const std::string& what,
                                           std::chrono::milliseconds timeout = kDefaultWait) const
    {
        ::testing::AssertionResult result = m_signal.WaitFor([&] { return m_count >= n; }, what, timeout);
        if (!result)
            result << " (count " << m_count << ", wanted " << n << ")";
        return result;
    }

private:
    std::atomic<long> m_count{0};
    ChangeSignal m_signal;
};

// Re-checks a condition that no event announces (a handle count, a heap
// count after the last destructor has returned), each time after another
// thread had the chance to run, until it holds or the time-out passes.
::testing::AssertionResult Eventually(const std::function<bool()>& condition, const std::string& what,
                                      std::chrono::milliseconds timeout = kDefaultWait);

#endif
