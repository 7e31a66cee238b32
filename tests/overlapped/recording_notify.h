// A notify object that records what each socket is told, in order, and lets a
// test hook into any call. Header-only: the stress test uses it too.
#ifndef WISOCK_TESTS_OVERLAPPED_RECORDING_NOTIFY_H
#define WISOCK_TESTS_OVERLAPPED_RECORDING_NOTIFY_H

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "factory/overlapped_socket_factory.h"
#include "overlapped/overlapped_socket.h"
#include "overlapped/socket_notify.h"
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

    EventCounter connects, closes, deletes, receives, timeouts;

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
            m_closeErrors[spSocket.get()] = nErrorCode;
            m_closeThreads[spSocket.get()] = GetCurrentThreadId();
        }
        if (onClose)
            onClose(nErrorCode, spSocket);
        closes.Add();
    }
    void OnReceive(int nErrorCode, const void* pData, int nLength, SocketPtr spSocket) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            std::string& bytes = m_received[spSocket.get()];
            bool first = bytes.empty();
            bytes.append(static_cast<const char*>(pData), static_cast<size_t>(nLength));
            if (first)
                m_log[spSocket.get()].push_back("OnReceive");
            if (nLength <= 0)
                m_log[spSocket.get()].push_back("OnReceive(length <= 0)");
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
            m_sent[spSocket.get()] += nLength;
        }
        if (onSend)
            onSend(nLength, spSocket);
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

    // Consecutive OnReceive calls are recorded once.
    std::vector<std::string> Log(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_log.find(p);
        return it == m_log.end() ? std::vector<std::string>() : it->second;
    }
    std::string Received(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_received.find(p);
        return it == m_received.end() ? std::string() : it->second;
    }
    long long Sent(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_sent.find(p);
        return it == m_sent.end() ? 0 : it->second;
    }
    int CloseError(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_closeErrors.find(p);
        return it == m_closeErrors.end() ? -1 : it->second;
    }
    DWORD CloseThread(const COverlappedSocket* p) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_closeThreads.find(p);
        return it == m_closeThreads.end() ? 0 : it->second;
    }
    // Sockets in the order they first appeared.
    std::vector<const COverlappedSocket*> Sockets() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_order;
    }
    size_t CountLogsEqual(const std::vector<std::string>& log) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (const auto& entry : m_log)
            if (entry.second == log)
                ++n;
        return n;
    }

private:
    void Record(const COverlappedSocket* p, const std::string& what)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto& log = m_log[p];
        if (log.empty() && m_received.find(p) == m_received.end())
            m_order.push_back(p);
        log.push_back(what);
    }

    mutable std::mutex m_mutex;
    std::map<const COverlappedSocket*, std::vector<std::string>> m_log;
    std::map<const COverlappedSocket*, std::string> m_received;
    std::map<const COverlappedSocket*, long long> m_sent;
    std::map<const COverlappedSocket*, int> m_closeErrors;
    std::map<const COverlappedSocket*, DWORD> m_closeThreads;
    std::vector<const COverlappedSocket*> m_order;
};

typedef std::vector<std::string> Log;

// Bytes 0..n-1 of a pattern that a shifted or dropped byte cannot hide in.
inline std::string Pattern(size_t n, unsigned seed = 1)
{
    std::string s(n, '\0');
    unsigned x = seed * 2654435761u + 12345u;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>(x >> 16);
    }
    return s;
}

#endif
