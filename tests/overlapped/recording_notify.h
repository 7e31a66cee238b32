// A notify object that records what each socket is told, in order, and lets a
// test hook into any call. Header-only: the stress test uses it too.
#ifndef WISOCK_TESTS_OVERLAPPED_RECORDING_NOTIFY_H
#define WISOCK_TESTS_OVERLAPPED_RECORDING_NOTIFY_H

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
    std::function<void(int, SocketPtr)> onSend;
    std::function<DWORD(SocketPtr)> onTimeout;
    bool echo = false;   // send every received byte back

    EventCounter connects, closes, deletes, receives, sends, timeouts;   // receives counts bytes

    void OnConnect(int nErrorCode, SocketPtr spSocket) override
    {
        Record(spSocket.get(), "OnConnect(" + std::to_string(nErrorCode) + ")");
        if (onConnect)
            onConnect(nErrorCode, spSocket);
        connects.Add();
    }
    void OnClose(int nErrorCode, SocketPtr spSocket) override
    {
        Record(spSocket.get(), nErrorCode == 0 ? "OnClose(0)" : "OnClose(error)");
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            Live(spSocket.get()).closeError = nErrorCode;
            Live(spSocket.get()).closeThread = GetCurrentThreadId();
        }
        if (onClose)
            onClose(nErrorCode, spSocket);
        closes.Add();
    }
    void OnReceive(int nErrorCode, const void* pData, int nLength, SocketPtr spSocket) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            Entry& e = Live(spSocket.get());
            if (e.log.empty() || e.log.back() != "OnReceive")
                e.log.push_back("OnReceive");
            e.received.append(static_cast<const char*>(pData), static_cast<size_t>(nLength));
            if (nLength <= 0)
                e.log.push_back("OnReceive(length <= 0)");
        }
        if (echo)
            spSocket->Send(pData, nLength, 0);
        if (onReceive)
            onReceive(pData, nLength, spSocket);
        receives.Add(nLength);
    }
    void OnSend(int nErrorCode, int nLength, SocketPtr spSocket) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            Live(spSocket.get()).sent += nLength;
        }
        if (onSend)
            onSend(nLength, spSocket);
        sends.Add();
    }
    DWORD OnReceiveTimeout(SocketPtr spSocket) override
    {
        Record(spSocket.get(), "OnReceiveTimeout");
        DWORD next = onTimeout ? onTimeout(spSocket) : 0;
        timeouts.Add();
        return next;
    }
    void OnDelete(COverlappedSocket* pSocket) override
    {
        Record(pSocket, "OnDelete");
        deletes.Add();
    }

    // Consecutive OnReceive calls are recorded once. A socket's log ends with
    // its OnDelete; an object made later at the same address gets a new log.
    std::vector<std::string> Log(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Entry* e = Find(p);
        return e ? e->log : std::vector<std::string>();
    }
    std::string Received(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Entry* e = Find(p);
        return e ? e->received : std::string();
    }
    long long Sent(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Entry* e = Find(p);
        return e ? e->sent : 0;
    }
    int CloseError(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Entry* e = Find(p);
        return e ? e->closeError : -1;
    }
    DWORD CloseThread(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const Entry* e = Find(p);
        return e ? e->closeThread : 0;
    }
    // Sockets in the order they first appeared (an address may repeat).
    std::vector<const COverlappedSocket*> Sockets() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<const COverlappedSocket*> v;
        for (const Entry& e : m_entries)
            v.push_back(e.socket);
        return v;
    }
    // Every log, in order of first appearance.
    std::vector<std::vector<std::string>> Logs() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::vector<std::string>> v;
        for (const Entry& e : m_entries)
            v.push_back(e.log);
        return v;
    }
    size_t CountLogsEqual(const std::vector<std::string>& log) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (const Entry& e : m_entries)
            if (e.log == log)
                ++n;
        return n;
    }

private:
    struct Entry {
        const COverlappedSocket* socket;
        std::vector<std::string> log;
        std::string received;
        long long sent = 0;
        int closeError = -1;
        DWORD closeThread = 0;
    };

    // Caller holds m_mutex. The live entry of p, or its latest one.
    const Entry* Find(const COverlappedSocket* p) const
    {
        auto live = m_live.find(p);
        if (live != m_live.end())
            return &m_entries[live->second];
        for (size_t i = m_entries.size(); i-- > 0;)
            if (m_entries[i].socket == p)
                return &m_entries[i];
        return nullptr;
    }
    // Caller holds m_mutex.
    Entry& Live(const COverlappedSocket* p)
    {
        auto live = m_live.find(p);
        if (live != m_live.end())
            return m_entries[live->second];
        m_entries.push_back(Entry{p, {}, {}});
        m_live[p] = m_entries.size() - 1;
        return m_entries.back();
    }
    void Record(const COverlappedSocket* p, const std::string& what)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Live(p).log.push_back(what);
        if (what == "OnDelete")
            m_live.erase(p);
    }

    mutable std::mutex m_mutex;
    std::deque<Entry> m_entries;
    std::map<const COverlappedSocket*, size_t> m_live;
};

typedef std::vector<std::string> Log;

// Bytes 0..n-1 of a pattern that a shifted or dropped byte cannot hide in.
inline std::string Pattern(size_t n, unsigned seed = 1) { return PatternBytes<std::string>(n, seed); }

#endif
