// An application thread for tests that race the library's own threads: it
// runs the functions posted to it, in order, and ends after the last one.
#ifndef WISOCK_TESTS_APP_THREAD_H
#define WISOCK_TESTS_APP_THREAD_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

class AppThread {
public:
    ~AppThread()
    {
        Post(nullptr);   // an empty function ends the loop
        m_thread.join();
    }
    void Post(std::function<void()> fn)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_work.push_back(std::move(fn));
        m_wake.notify_one();
    }

private:
    void Run()
    {
        for (;;) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return !m_work.empty(); });
            std::function<void()> fn = std::move(m_work.front());
            m_work.pop_front();
            lock.unlock();
            if (!fn)
                return;
            fn();
        }
    }
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_work;
    std::thread m_thread{[this] { Run(); }};
};

#endif
