#include "tls/network_wait.h"

#include "module/scope_lock.h"

CUnfiredWaits& CUnfiredWaits::Instance()
{
    static CUnfiredWaits s_waits;
    return s_waits;
}

CUnfiredWaits::CUnfiredWaits() { InitializeCriticalSectionAndSpinCount(&m_csLock, 0); }

CUnfiredWaits::~CUnfiredWaits() { DeleteCriticalSection(&m_csLock); }

void CUnfiredWaits::Add(const COverlappedSSL* pSocket, CNetworkWaitContext* pContext)
{
    CScopeLock lock(m_csLock);
    m_mapWaits[pSocket] = pContext;
}

bool CUnfiredWaits::Claim(CNetworkWaitContext* pContext)
{
    // Reading the context is safe: whoever took it frees it only after this
    // callback has returned.
    const COverlappedSSL* pSocket = pContext->get();
    CScopeLock lock(m_csLock);
    auto it = m_mapWaits.find(pSocket);
    if (it == m_mapWaits.end() || it->second != pContext)
        return false;
    m_mapWaits.erase(it);
    return true;
}

CNetworkWaitContext* CUnfiredWaits::Take(const COverlappedSSL* pSocket)
{
    CScopeLock lock(m_csLock);
    auto it = m_mapWaits.find(pSocket);
    if (it == m_mapWaits.end())
        return nullptr;
    CNetworkWaitContext* pContext = it->second;
    m_mapWaits.erase(it);
    return pContext;
}
