// The wait context of a TLS socket's registered network wait, and the table
// that tells who frees it. Internal to wisock.dll.
//
// A wait context is a strong reference to the socket, passed to
// RegisterWaitForSingleObject. Normally the callback owns it from the moment
// it runs. But a one-shot wait that Close cancels before it fires never runs
// its callback, and the reference would keep the socket alive for ever. So a
// context stands in this table from its registration until its callback
// starts: the callback claims it from here, or Close takes it out and hands
// it to the work item that unregisters the wait, which frees it after
// UnregisterWaitEx has returned.
#ifndef WISOCK_TLS_NETWORK_WAIT_H
#define WISOCK_TLS_NETWORK_WAIT_H

#include <winsock2.h>
#include <windows.h>

#include <map>
#include <memory>

class COverlappedSSL;

typedef std::shared_ptr<COverlappedSSL> CNetworkWaitContext;

class CUnfiredWaits {
public:
    static CUnfiredWaits& Instance();

    // A context whose wait is about to be registered for pSocket.
    void Add(const COverlappedSSL* pSocket, CNetworkWaitContext* pContext);
    // The callback of pContext starts: true if it owns the context now.
    bool Claim(CNetworkWaitContext* pContext);
    // Close: the context whose callback has not started, or null.
    CNetworkWaitContext* Take(const COverlappedSSL* pSocket);

private:
    CUnfiredWaits();
    ~CUnfiredWaits();
    CUnfiredWaits(const CUnfiredWaits&) = delete;
    CUnfiredWaits& operator=(const CUnfiredWaits&) = delete;

    CRITICAL_SECTION m_csLock;
    std::map<const COverlappedSSL*, CNetworkWaitContext*> m_mapWaits;
};

#endif
