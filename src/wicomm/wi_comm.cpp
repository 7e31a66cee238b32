// CWiComm: the registry of comm objects, the stack's start and stop, the
// settings of the base class and the family of notification calls.
#include "wicomm/wi_comm.h"

#include <new>
#include <vector>

#include "module/notify_guard.h"
#include "module/scope_lock.h"
#include "wicomm/wi_tcp.h"

IMPLEMENT_DYNAMIC(CWiComm, CObject)

// Storage for the constants, so applications may bind references to them.
const int CWiComm::CLASSID_INVALID;
const int CWiComm::CLASSID_WICOM;
const int CWiComm::CLASSID_WITCP;
const int CWiComm::CLASSID_WIUDP;
const int CWiComm::DEVICE;
const int CWiComm::OPEN;
const int CWiComm::CLOSE;
const int CWiComm::READ;
const int CWiComm::WRITE;

int CWiComm::ms_bStartup = 0;
CCriticalSection CWiComm::ms_csCommSet;
CWiComm::CommMap CWiComm::ms_ActiveComm;
CWiComm::CommMap CWiComm::ms_DeadComm;

namespace {
std::atomic<bool> g_bStopping(false);
}

CWiComm::CWiComm()
    : m_nClassID(CLASSID_INVALID), m_pNotifyObject(nullptr), m_dwTimeout1(0), m_dwTimeout2(0), m_dwTimeout3(0),
      m_dwBytesTimeout(0), m_bCloseNotified(0), m_bDeleting(0), m_bInReadNotify(0), m_nSSLMode(-1),
      m_nMaxSendBufferSize(0), m_nWriteOverFlowProcess(0), m_bUnpackingWhenWrite(0), m_nSendBufferSize(0)
{
}

CWiComm::~CWiComm()
{
    // Continuation blocks that ClearSendBuffer keeps at the front of the
    // queue are never sent: their data goes with the object.
    for (SendBlock& block : m_listSendBuffer)
        delete[] block.pData;
}

int CWiComm::Open(const char*) { return 0; }
int CWiComm::GetLastError() { return (int)::GetLastError(); }
int CWiComm::IsOpen() { return 0; }
int CWiComm::SetCommOpt(const char*) { return 0; }
int CWiComm::Close() { return 0; }
int CWiComm::Write(const void*, unsigned long) { return 0; }
int CWiComm::GetBytesCanRead() { return 0; }

void CWiComm::ClearSendBuffer()
{
    CScopeLock lock(m_csComm);
    if (m_listSendBuffer.empty())
        return;
    m_nSendBufferSize = 0;
    auto it = m_listSendBuffer.begin();
    for (; it != m_listSendBuffer.end() && !it->bFirstBlock; ++it)
        m_nSendBufferSize += it->nLength;
    while (it != m_listSendBuffer.end()) {
        delete[] it->pData;
        it = m_listSendBuffer.erase(it);
    }
}

void CWiComm::BeforeDelete()
{
    CScopeLock lock(ms_csCommSet);
    SetNotifyObject(nullptr);
    if (!IsValidObject(this))
        return;
    std::shared_ptr<CWiComm> spSelf = shared_from_this();
    ms_ActiveComm.erase(this);
    ms_DeadComm[this] = spSelf;
}

int CWiComm::SetTimeouts(DWORD dwTimeout1, DWORD dwTimeout2, DWORD dwTimeout3, DWORD dwBytes)
{
    CScopeLock lock(m_csComm);
    m_dwTimeout1 = dwTimeout1;
    m_dwTimeout2 = dwTimeout2;
    m_dwTimeout3 = dwTimeout3;
    m_dwBytesTimeout = dwBytes;
    return 1;
}

// ---- start and stop --------------------------------------------------------

int CWiComm::Startup()
{
    if (ms_bStartup)
        return 1;
    WSADATA data;
    if (WSAStartup(0x0202, &data) != 0 && WSAStartup(0x0002, &data) != 0)
        return 0;
    CWiTcp::Startup();
    ms_bStartup = 1;
    return 1;
}

int CWiComm::Cleanup()
{
    if (!ms_bStartup)
        return 1;
    // Objects still open keep no socket, TLS handle or window past the stop;
    // their TLS handles end before the library is released.
    ReleaseObjectsStillOpen();
    CWiTcp::Cleanup();
    CommMap active, dead;
    {
        CScopeLock lock(ms_csCommSet);
        active.swap(ms_ActiveComm);
        dead.swap(ms_DeadComm);
    }
    // The registry's references go here, outside the lock; objects nobody
    // else holds are destroyed without BeforeDelete and without notification.
    active.clear();
    dead.clear();
    ms_bStartup = 0;
    return WSACleanup() == 0 ? 1 : 0;
}

void CWiComm::ReleaseObjectsStillOpen()
{
    std::vector<std::shared_ptr<CWiComm>> open;
    {
        CScopeLock lock(ms_csCommSet);
        for (auto& entry : ms_ActiveComm)
            open.push_back(entry.second);
    }
    // m_csComm of each object is taken without ms_csCommSet held.
    g_bStopping = true;
    for (auto& spComm : open)
        if (spComm->IsKindOf(RUNTIME_CLASS(CWiTcp)))
            static_cast<CWiTcp*>(spComm.get())->ReleaseOnWindowThread();
    g_bStopping = false;
}

bool CWiComm::IsStopping() { return g_bStopping; }

// ---- registry -------------------------------------------------------------

std::shared_ptr<CWiComm> CWiComm::NewObject(unsigned int nClassID, const char* pszOption,
                                            ICommNotifyObject* pNotifyObject, int nSSLMode)
{
    if (!ms_bStartup || nClassID != (unsigned int)CLASSID_WITCP)
        return nullptr;
    std::shared_ptr<CWiComm> spComm;
    try {
        spComm.reset(new CWiTcp(nSSLMode));
    } catch (std::bad_alloc&) {
        return nullptr;
    }
    spComm->m_pNotifyObject = pNotifyObject;
    AddCommToCommSet(spComm);
    int bOpened = 0;
    try {
        bOpened = spComm->Open(pszOption);
    } catch (...) {
        // An exception of the application's OnOpen leaves no half-open object behind.
        DropFailedObject(spComm);
        throw;
    }
    if (bOpened)
        return spComm;
    DropFailedObject(spComm);
    return nullptr;
}

void CWiComm::DropFailedObject(const std::shared_ptr<CWiComm>& spComm)
{
    if (IsValidObject(spComm.get()))
        spComm->Close();
    // Close needs the window to carry it; an object that is still valid after
    // it (no window) must still leave the registry and free its socket.
    spComm->BeforeDelete();
}

void CWiComm::AddCommToCommSet(std::shared_ptr<CWiComm> spComm)
{
    CScopeLock lock(ms_csCommSet);
    if (spComm)
        ms_ActiveComm[spComm.get()] = spComm;
    if (ms_DeadComm.size() > 2) {
        auto last = ms_DeadComm.begin();
        for (auto it = last; it != ms_DeadComm.end(); ++it)
            last = it;
        ms_DeadComm.erase(last);
    }
}

int CWiComm::IsValidObject(CWiComm* pComm)
{
    if (!ms_bStartup)
        return 0;
    CScopeLock lock(ms_csCommSet);
    return ms_ActiveComm.find(pComm) != ms_ActiveComm.end() ? 1 : 0;
}

// ---- settings --------------------------------------------------------------

int CWiComm::GetClassID() { return m_nClassID; }

CString CWiComm::GetOpenOption()
{
    if (!IsValidObject(this))
        return CString();
    CScopeLock lock(m_csComm);
    return m_strOpenOption;
}

void CWiComm::SetNotifyObject(ICommNotifyObject* pNotifyObject)
{
    if (!IsValidObject(this))
        return;
    CScopeLock lock(m_csComm);
    m_pNotifyObject = pNotifyObject;
}

void CWiComm::SetMaxSendBufferSize(size_t nSize)
{
    CScopeLock lock(m_csComm);
    m_nMaxSendBufferSize = nSize;
}

void CWiComm::SetWriteOverFlowProcess(int nMode)
{
    CScopeLock lock(m_csComm);
    m_nWriteOverFlowProcess = nMode;
}

void CWiComm::SetUnpackingWhenWrite(int bUnpacking)
{
    CScopeLock lock(m_csComm);
    m_bUnpackingWhenWrite = bUnpacking;
}

// ---- notifications: each returns the object's validity after the call -----

int CWiComm::CallOpenNotify(std::shared_ptr<CWiComm> spComm)
{
    ICommNotifyObject* pNotify = m_pNotifyObject;
    if (IsValidObject(this) && pNotify != nullptr)
        pNotify->OnOpen(spComm);
    return IsValidObject(this);
}

int CWiComm::CallCloseNotify(std::shared_ptr<CWiComm> spComm)
{
    ICommNotifyObject* pNotify = m_pNotifyObject;
    if (!IsValidObject(this) || pNotify == nullptr || spComm.get() != this)
        return IsValidObject(this);
    if (m_bCloseNotified.exchange(1) != 0)
        return IsValidObject(this);
    bool bReturned = false;
    try {
        bReturned = InvokeGuarded([&] { pNotify->OnClose(spComm); });
    } catch (...) {
    }
    if (bReturned) {
        CScopeLock lock(m_csComm);
        m_pNotifyObject = nullptr;
    }
    return IsValidObject(this);
}

int CWiComm::CallReadCompleteNotify(const void* pData, int nLength, std::shared_ptr<CWiComm> spComm)
{
    ICommNotifyObject* pNotify = m_pNotifyObject;
    if (!IsValidObject(this) || pNotify == nullptr)
        return IsValidObject(this);
    // A delivery nested in a running OnReadComplete is dropped.
    if (m_bInReadNotify.exchange(1) != 0)
        return IsValidObject(this);
    try {
        InvokeGuarded([&] { pNotify->OnReadComplete(pData, nLength, spComm); });
    } catch (...) {
    }
    m_bInReadNotify.exchange(0);
    return IsValidObject(this);
}

int CWiComm::CallWriteCompleteNotify(int nLength, std::shared_ptr<CWiComm> spComm)
{
    ICommNotifyObject* pNotify = m_pNotifyObject;
    if (IsValidObject(this) && pNotify != nullptr)
        pNotify->OnWriteComplete(nLength, spComm);
    return IsValidObject(this);
}

int CWiComm::CallErrorNotify(int nOperation, int nErrorCode, std::shared_ptr<CWiComm> spComm)
{
    ICommNotifyObject* pNotify = m_pNotifyObject;
    if (IsValidObject(this) && pNotify != nullptr)
        InvokeGuarded([&] { pNotify->OnError(nOperation, nErrorCode, spComm); });
    return IsValidObject(this);
}
