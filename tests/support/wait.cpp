#include "support/wait.h"

::testing::AssertionResult WaitForHandle(HANDLE h, const std::string& what, std::chrono::milliseconds timeout)
{
    DWORD rc = WaitForSingleObject(h, (DWORD)timeout.count());
    if (rc == WAIT_OBJECT_0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "timed out after " << timeout.count() << " ms waiting for: " << what
                                         << " (wait result " << rc << ")";
}

TestEvent::TestEvent() : m_h(CreateEventW(NULL, TRUE, FALSE, NULL)) {}
TestEvent::~TestEvent() { CloseHandle(m_h); }

void ChangeSignal::Changed()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_nChanges;
    }
    m_changed.notify_all();
}

::testing::AssertionResult ChangeSignal::WaitFor(const std::function<bool()>& condition, const std::string& what,
                                                 std::chrono::milliseconds timeout) const
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // The condition may take locks of its own, so it is tested outside
        // this one: the count read before the test tells whether a change
        // came in between, which the wait would otherwise sleep through.
        unsigned long long nSeen;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            nSeen = m_nChanges;
        }
        if (condition())
            return ::testing::AssertionSuccess();
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_changed.wait_until(lock, deadline, [&] { return m_nChanges != nSeen; })) {
            lock.unlock();
            if (condition())
                return ::testing::AssertionSuccess();
            return ::testing::AssertionFailure() << "timed out after " << timeout.count()
                                                 << " ms waiting for: " << what;
        }
    }
}

::testing::AssertionResult Eventually(const std::function<bool()>& condition, const std::string& what,
                                      std::chrono::milliseconds timeout)
{
    const ULONGLONG deadline = GetTickCount64() + timeout.count();
    HANDLE never = CreateEventW(NULL, TRUE, FALSE, NULL);
    bool ok = condition();
    while (!ok && GetTickCount64() < deadline) {
        WaitForSingleObject(never, 5);   // lets the other threads finish their step
        ok = condition();
    }
    CloseHandle(never);
    if (ok)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "after " << timeout.count() << " ms still not true: " << what;
}
