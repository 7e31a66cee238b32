// Receive time-outs: one thread per factory wakes once a second and walks the
// entries in order of expiry; a socket silent for its time-out is reported
// with OnReceiveTimeout, one that received in time has its entry moved on.
#include "factory/overlapped_socket_factory.h"

#include <utility>

#include "module/scope_lock.h"
#include "overlapped/socket_notify_call.h"

CRecvTimerRequest::EDue CRecvTimerRequest::CheckDue(DWORD dwNow, DWORD dwLastPass) const
{
    if (m_dwExpireTick <= dwNow)
        return DUE;
    if (dwLastPass <= dwNow)
        return STOP_WALK;   // no wrap since the last pass: this and all later keys lie ahead
    if (dwNow >= m_dwStartTick)
        return NOT_DUE;     // wrapped, and the entry was armed after the wrap
    if (static_cast<LONG>(dwNow - m_dwStartTick) < static_cast<LONG>(m_dwTimeout))
        return NOT_DUE;     // wrapped, and the time-out hasn't run since the start
    return DUE;
}

BOOL CRecvTimerRequest::IsSilent(DWORD dwNow, DWORD dwLastReceive, DWORD dwTimeout)
{
    return static_cast<LONG>(dwNow - dwLastReceive) >= static_cast<LONG>(dwTimeout) ? TRUE : FALSE;
}

void COverlappedSocketFactory::AddTimerRequest(DWORD dwTimeout, std::shared_ptr<COverlappedSocket> spSocket)
{
    if (!spSocket || dwTimeout == 0)
        return;
    CRecvTimerRequest request;
    request.m_dwStartTick = GetTickCount();
    request.m_dwExpireTick = request.m_dwStartTick + dwTimeout;
    request.m_dwTimeout = dwTimeout;
    request.m_spSocket = spSocket;
    SocketList released;
    CScopeLock lock(m_csLock);
    // After Destory, or on a closed socket, an entry would only hold the
    // socket (and through it the factory) with nobody left to remove it.
    if (m_bDestroyed || spSocket->IsClose())
        return;
    if (m_bTimerPassRunning)
        m_lstPendingTimerRequests.push_back(request);
    else
        InsertTimerRequest(request, released);
}

// Caller holds m_csLock. Replaces the socket's entry, if it has one.
void COverlappedSocketFactory::InsertTimerRequest(const CRecvTimerRequest& request, SocketList& released)
{
    EraseTimerRequest(request.m_spSocket.get(), released);
    m_mapTimerRequests.insert(std::make_pair(request.m_dwExpireTick, request));
}

DWORD WINAPI COverlappedSocketFactory::RecvTimeoutThread(void* pParam)
{
    COverlappedSocketFactory* pFactory = static_cast<COverlappedSocketFactory*>(pParam);
    std::shared_ptr<COverlappedSocketFactory> spFactory = pFactory->weak_from_this().lock();
    if (!spFactory)
        return 0;
    for (;;) {
        SocketList released;   // references dropped only after the lock is left
        if (spFactory->m_bDestroyed) {
            CScopeLock lock(spFactory->m_csLock);
            spFactory->ClearTimerRequests(released);
            lock.Unlock();
            return 0;
        }
        spFactory->RunTimerPass(released);
        released.clear();
        SleepEx(1000, TRUE);
    }
}

namespace {

// A report's result is a time-out to wait for; past this it would read as
// negative in the silence test and schedule the next report in the past.
const DWORD kLongestReportedTimeout = 0x7FFFFFFF;

}  // namespace

void COverlappedSocketFactory::RunTimerPass(SocketList& released)
{
    CScopeLock lock(m_csLock);
    m_bTimerPassRunning = TRUE;
    MergePendingTimerRequests(released);
    DWORD dwLastPass = m_dwLastPassTick;
    m_dwLastPassTick = GetTickCount();
    // Entries moved in this walk go back in after it: an entry moved to a key
    // still due (a wrap, a huge time-out) would else come up again and again.
    std::vector<CRecvTimerRequest> moved;
    auto it = m_mapTimerRequests.begin();
    while (!m_bDestroyed && it != m_mapTimerRequests.end())
        HandleTimerEntry(it, dwLastPass, moved, released, lock);
    for (const CRecvTimerRequest& request : moved)
        m_mapTimerRequests.insert(std::make_pair(request.m_dwExpireTick, request));
    // Requests made and sockets closed while a report had the lock left.
    MergePendingTimerRequests(released);
    m_bTimerPassRunning = FALSE;
}

// Caller holds m_csLock. A pending request with a time-out of 0 is a closed
// socket's: it only removes the socket's entry.
void COverlappedSocketFactory::MergePendingTimerRequests(SocketList& released)
{
    for (CRecvTimerRequest& request : m_lstPendingTimerRequests) {
        if (request.m_dwTimeout != 0)
            InsertTimerRequest(request, released);
        else
            EraseTimerRequest(request.m_spSocket.get(), released);
        released.push_back(std::move(request.m_spSocket));
    }
    m_lstPendingTimerRequests.clear();
}

// Caller holds m_csLock. Takes the entry out of the map; it goes back in,
// under its new key, when the walk is over.
void COverlappedSocketFactory::MoveTimerEntry(TimerMap::iterator entry, DWORD dwStart, DWORD dwTimeout, DWORD dwExpire,
                                              std::vector<CRecvTimerRequest>& moved)
{
    CRecvTimerRequest request = entry->second;
    request.m_dwStartTick = dwStart;
    request.m_dwTimeout = dwTimeout;
    request.m_dwExpireTick = dwExpire;
    moved.push_back(request);
    m_mapTimerRequests.erase(entry);
}

// Caller holds m_csLock (through lock). Advances it past the entry, or to the
// end when the walk stops.
void COverlappedSocketFactory::HandleTimerEntry(TimerMap::iterator& it, DWORD dwLastPass,
                                                std::vector<CRecvTimerRequest>& moved, SocketList& released,
                                                CScopeLock& lock)
{
    DWORD dwNow = GetTickCount();
    std::shared_ptr<COverlappedSocket> spSocket = it->second.m_spSocket;
    DWORD dwLastReceive = spSocket->m_dwLastReceiveTick;
    switch (it->second.CheckDue(dwNow, dwLastPass)) {
    case CRecvTimerRequest::STOP_WALK:
        it = m_mapTimerRequests.end();
        return;
    case CRecvTimerRequest::NOT_DUE:
        ++it;
        return;
    case CRecvTimerRequest::DUE:
        break;
    }
    auto entry = it++;
    released.push_back(spSocket);
    if (CRecvTimerRequest::IsSilent(dwNow, dwLastReceive, spSocket->m_nReceiveTimeout)) {
        ReportTimeout(entry, dwNow, moved, released, lock);
        return;
    }
    if (spSocket->m_bClosed) {
        released.push_back(std::move(entry->second.m_spSocket));
        m_mapTimerRequests.erase(entry);
        return;
    }
    MoveTimerEntry(entry, dwNow, entry->second.m_dwTimeout, entry->second.m_dwTimeout + dwLastReceive, moved);
}

// Reports a silent socket with the factory lock left; while it is left only
// this thread changes the map, so entry stays valid.
void COverlappedSocketFactory::ReportTimeout(TimerMap::iterator entry, DWORD dwNow,
                                             std::vector<CRecvTimerRequest>& moved, SocketList& released,
                                             CScopeLock& lock)
{
    std::shared_ptr<COverlappedSocket> spSocket = entry->second.m_spSocket;
    lock.Unlock();
    std::shared_ptr<ISocketNotifyObject> spNotify = spSocket->GetNotifyObject();
    DWORD dwNext = 0;
    if (!spSocket->m_bClosed && spNotify)
        dwNext = CSocketNotifyCall::OnReceiveTimeout(spNotify, spSocket);
    spNotify.reset();   // may end the notify object: not under our lock
    if (dwNext > kLongestReportedTimeout)
        dwNext = kLongestReportedTimeout;
    lock.Lock();
    if (!spSocket->m_bClosed && dwNext != 0) {
        spSocket->m_nReceiveTimeout = dwNext;
        MoveTimerEntry(entry, dwNow, dwNext, dwNow + dwNext, moved);
    } else {
        released.push_back(std::move(entry->second.m_spSocket));
        m_mapTimerRequests.erase(entry);
    }
    released.push_back(std::move(spSocket));
}

// Caller holds m_csLock.
void COverlappedSocketFactory::EraseTimerRequest(const COverlappedSocket* pSocket, SocketList& released)
{
    for (auto it = m_mapTimerRequests.begin(); it != m_mapTimerRequests.end(); ++it) {
        if (it->second.m_spSocket.get() == pSocket) {
            released.push_back(std::move(it->second.m_spSocket));
            m_mapTimerRequests.erase(it);
            return;
        }
    }
}

// Takes the lock itself (from Close).
void COverlappedSocketFactory::DropTimerRequests(const COverlappedSocket* pSocket, SocketList& released)
{
    CScopeLock lock(m_csLock);
    for (auto it = m_lstPendingTimerRequests.begin(); it != m_lstPendingTimerRequests.end();) {
        if (it->m_spSocket.get() == pSocket) {
            released.push_back(std::move(it->m_spSocket));
            it = m_lstPendingTimerRequests.erase(it);
        } else {
            ++it;
        }
    }
    if (!m_bTimerPassRunning) {
        EraseTimerRequest(pSocket, released);
        return;
    }
    // A report has the lock left and the walk's position must stay valid:
    // the end of the pass removes the entry.
    CRecvTimerRequest drop;
    drop.m_dwStartTick = drop.m_dwExpireTick = drop.m_dwTimeout = 0;
    drop.m_spSocket = const_cast<COverlappedSocket*>(pSocket)->shared_from_this();
    m_lstPendingTimerRequests.push_back(drop);
}

// Caller holds m_csLock.
void COverlappedSocketFactory::ClearTimerRequests(SocketList& released)
{
    for (auto& entry : m_mapTimerRequests)
        released.push_back(std::move(entry.second.m_spSocket));
    m_mapTimerRequests.clear();
    for (auto& request : m_lstPendingTimerRequests)
        released.push_back(std::move(request.m_spSocket));
    m_lstPendingTimerRequests.clear();
}
