// A notify object that records what each socket is told, in order, and lets a
// test hook into any call.
#ifndef WISOCK_TESTS_OVERLAPPED_RECORDING_NOTIFY_H
#define WISOCK_TESTS_OVERLAPPED_RECORDING_NOTIFY_H

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "factory/overlapped_socket_factory.h"
#include "overlapped/overlapped_socket.h"
#include "overlapped/socket_notify.h"
#include "support/pattern.h"
#include "support/wait.h"

typedef std::shared_ptr<COverlappedSocket> SocketPtr;
typedef std::shared_ptr<COverlappedSocketFactory> FactoryPtr;

class RecordingNotify : public ISocketNotifyObject {
public:
    // Hooks run inside the call, after it was recorded.
    std::function<void(int, SocketPtr)> onConnect, onClose;
    std::function<void(const void*, int, SocketPtr)> onReceive;
    std::function<void(int, int, SocketPtr)> onSend;   // error, length
    std::function<DWORD(SocketPtr)> onTimeout;
    bool echo = false;   // send every received byte back

    EventCounter connects, closes, deletes, receives, timeouts;   // receives counts bytes

    // What one socket was told; consecutive OnReceive calls are logged once.
    struct Entry {
        const COverlappedSocket* socket;
        std::vector<std::string> log;
        std::string received;
        long long sent;
        int closeError;
        DWORD closeThread;
    };

    void OnConnect(int nErrorCode, SocketPtr s) override
    {
        Update(s.get(), [&](Entry& e) { e.log.push_back("OnConnect(" + std::to_string(nErrorCode) + ")"); });
        if (onConnect)
            onConnect(nErrorCode, s);
        connects.Add();
    }
    void OnClose(int nErrorCode, SocketPtr s) override
    {
        Update(s.get(), [&](Entry& e) {
            e.log.push_back(nErrorCode == 0 ? "OnClose(0)" : "OnClose(error)");
            e.closeError = nErrorCode;
            e.closeThread = GetCurrentThreadId();
        });
        if (onClose)
            onClose(nErrorCode, s);
        closes.Add();
    }
    void OnReceive(int, const void* pData, int nLength, SocketPtr s) override
    {
        Update(s.get(), [&](Entry& e) {
            if (e.log.empty() || e.log.back() != "OnReceive")
                e.log.push_back("OnReceive");
            if (nLength <= 0)
                e.log.push_back("OnReceive(length <= 0)");
            else
                e.received.append(static_cast<const char*>(pData), static_cast<size_t>(nLength));
        });
        if (echo)
            s->Send(pData, nLength, 0);
        if (onReceive)
            onReceive(pData, nLength, s);
        receives.Add(nLength);
    }
    void OnSend(int nErrorCode, int nLength, SocketPtr s) override
    {
        Update(s.get(), [&](Entry& e) { e.sent += nLength; });
        if (onSend)
            onSend(nErrorCode, nLength, s);
    }
    DWORD OnReceiveTimeout(SocketPtr s) override
    {
        Update(s.get(), [](Entry& e) { e.log.push_back("OnReceiveTimeout"); });
        DWORD next = onTimeout ? onTimeout(s) : 0;
        timeouts.Add();
        return next;
    }
    void OnDelete(COverlappedSocket* p) override
    {
        Update(p, [](Entry& e) { e.log.push_back("OnDelete"); });
        deletes.Add();
    }

    // The live entry of p, else its latest: an object made later at the same
    // address gets an entry of its own.
    Entry Of(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto live = m_live.find(p);
        if (live != m_live.end())
            return m_entries[live->second];
        for (size_t i = m_entries.size(); i-- > 0;)
            if (m_entries[i].socket == p)
                return m_entries[i];
        return Entry{p, {}, {}, 0, -1, 0};
    }
    std::vector<std::string> Log(const COverlappedSocket* p) const { return Of(p).log; }
    std::string Received(const COverlappedSocket* p) const { return Of(p).received; }
    // Every entry, in order of first notification.
    std::vector<Entry> Entries() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::vector<Entry>(m_entries.begin(), m_entries.end());
    }
    size_t CountLogsEqual(const std::vector<std::string>& log) const
    {
        auto all = Entries();
        return std::count_if(all.begin(), all.end(), [&](const Entry& e) { return e.log == log; });
    }
    ::testing::AssertionResult WaitFor(const std::function<bool()>& condition, const std::string& what,
                                       std::chrono::milliseconds timeout = kDefaultWait) const
    {
        return m_changes.WaitFor(condition, what, timeout);
    }

private:
    void Update(const COverlappedSocket* p, const std::function<void(Entry&)>& change)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto live = m_live.find(p);
            if (live == m_live.end()) {
                m_entries.push_back(Entry{p, {}, {}, 0, -1, 0});
                live = m_live.emplace(p, m_entries.size() - 1).first;
            }
            change(m_entries[live->second]);
            const std::vector<std::string>& log = m_entries[live->second].log;
            if (!log.empty() && log.back() == "OnDelete")
                m_live.erase(live);
        }
        m_changes.Changed();
    }

    mutable std::mutex m_mutex;
    std::deque<Entry> m_entries;
    std::map<const COverlappedSocket*, size_t> m_live;
    ChangeSignal m_changes;
};

typedef std::vector<std::string> Log;

// Bytes 0..n-1 of a pattern that a shifted or dropped byte cannot hide in.
inline std::string Pattern(size_t n, unsigned seed = 1) { return PatternBytes<std::string>(n, seed); }

#endif
