// COverlappedSocket: the object, its accessors, names and options, and the
// record mechanics shared by the worker, Close and the TLS socket.
#include "overlapped/overlapped_socket.h"

#include <mswsock.h>

#include <cstring>

#include "factory/overlapped_socket_factory.h"
#include "module/ip_address.h"
#include "module/scope_lock.h"
#include "overlapped/socket_notify_call.h"

IMPLEMENT_DYNAMIC(COverlappedSocket, CObject)

namespace {

const DWORD kMinSendPacketSize = 100;
const DWORD kMaxSendPacketSize = 0x100000;
const DWORD kAcceptAddressLength = sizeof(sockaddr_in6) + 16;   // as the accept was issued

}  // namespace

COverlappedSocket::COverlappedSocket()
    : m_hSocket(INVALID_SOCKET), m_dtCreateTime(0.0), m_dtConnectTime(0.0), m_bClosed(0), m_dwLastReceiveTick(0),
      m_nReceiveTimeout(0xFFFFFFFF), m_nMaxSendPacketSize(COverlappedInfo::DEFAULT_BUFFER_SIZE), m_bSending(0),
      m_nBacklog(5), m_bNotifySend(1), m_bCloseClaimed(0),
      m_nOperationsPending(0), m_hHandleToClose(INVALID_SOCKET), m_bAcceptTaken(0)
{
    InitializeCriticalSectionAndSpinCount(&m_csLock, 0);
    std::memset(m_byAddressArea, 0, sizeof(m_byAddressArea));
}

void COverlappedSocket::ReportDeleteAndFreeRecords()
{
    std::shared_ptr<ISocketNotifyObject> spNotify;
    {
        CScopeLock lock(m_csLock);
        spNotify = m_spNotifyObject;
    }
    CSocketNotifyCall::OnDelete(spNotify, this);
    {
        CScopeLock lock(m_csLock);
        m_spNotifyObject.reset();   // so that a second call reports nothing
        DestroySendRecords();
    }
}

COverlappedSocket::~COverlappedSocket()
{
    ReportDeleteAndFreeRecords();
    DeleteCriticalSection(&m_csLock);
}

void COverlappedSocket::Lock() { EnterCriticalSection(&m_csLock); }
void COverlappedSocket::Unlock() { LeaveCriticalSection(&m_csLock); }

SOCKET COverlappedSocket::GetSocketHandle()
{
    CScopeLock lock(m_csLock);
    return m_hSocket;
}

void COverlappedSocket::SetMaxSendPacketSize(DWORD nSize)
{
    DWORD nStored = nSize;
    if (nSize == 0xFFFFFFFF)
        nStored = COverlappedInfo::DEFAULT_BUFFER_SIZE;
    else if (nSize >= kMaxSendPacketSize)
        nStored = kMaxSendPacketSize;
    else if (nSize < kMinSendPacketSize)
        nStored = kMinSendPacketSize;
    CScopeLock lock(m_csLock);
    m_nMaxSendPacketSize = nStored;
}

DWORD COverlappedSocket::GetMaxSendPacketSize()
{
    CScopeLock lock(m_csLock);
    return m_nMaxSendPacketSize;
}

DWORD COverlappedSocket::GetReceiveTimeout() { return m_nReceiveTimeout; }

void COverlappedSocket::SetReceiveTimeout(DWORD nTimeout)
{
    m_dwLastReceiveTick = GetTickCount();
    m_nReceiveTimeout = nTimeout;
    if (m_spFactory)
        m_spFactory->AddTimerRequest(nTimeout, shared_from_this());
}

int COverlappedSocket::IOCtl(long nCommand, unsigned long* pArgument)
{
    return ioctlsocket(m_hSocket, nCommand, pArgument) == 0 ? 1 : 0;
}

int COverlappedSocket::SetSockOpt(int nOptionName, const void* pValue, int nLength, int nLevel)
{
    return setsockopt(m_hSocket, nLevel, nOptionName, static_cast<const char*>(pValue), nLength) == 0 ? 1 : 0;
}

int COverlappedSocket::GetSockOpt(int nOptionName, void* pValue, int* pLength, int nLevel)
{
    return getsockopt(m_hSocket, nLevel, nOptionName, static_cast<char*>(pValue), pLength) == 0 ? 1 : 0;
}

int COverlappedSocket::ShutDown(int nHow) { return shutdown(m_hSocket, nHow) == 0 ? 1 : 0; }

int COverlappedSocket::GetLastError() { return WSAGetLastError(); }

int COverlappedSocket::IsClose() { return m_bClosed; }

int COverlappedSocket::IsConnected()
{
    if (!m_spFactory)
        return 0;
    CScopeLock lock(m_spFactory->m_csLock);
    return m_spFactory->m_mapConnectedSockets.count(m_hSocket) ? 1 : 0;
}

int COverlappedSocket::IsListenSocket()
{
    if (!m_spFactory)
        return 0;
    CScopeLock lock(m_spFactory->m_csLock);
    return m_spFactory->m_mapListenSockets.count(m_hSocket) ? 1 : 0;
}

std::shared_ptr<COverlappedSocket> COverlappedSocket::GetListenSocket()
{
    CScopeLock lock(m_csLock);
    return m_spListenSocket;
}

std::shared_ptr<COverlappedSocketFactory> COverlappedSocket::GetFactory() { return m_spFactory; }

void COverlappedSocket::SetNotifyObject(std::shared_ptr<ISocketNotifyObject> spNotifyObject, int bNotifySend)
{
    std::shared_ptr<ISocketNotifyObject> spOld;
    CScopeLock lock(m_csLock);
    spOld.swap(m_spNotifyObject);   // the old one may go only after the lock is left
    m_spNotifyObject = spNotifyObject;
    m_bNotifySend = bNotifySend;
    lock.Unlock();
}

std::shared_ptr<ISocketNotifyObject> COverlappedSocket::GetNotifyObject()
{
    CScopeLock lock(m_csLock);
    return m_spNotifyObject;
}

size_t COverlappedSocket::GetWaitSendListPackSize()
{
    CScopeLock lock(m_csLock);
    return m_listWaitSend.size();
}

size_t COverlappedSocket::GetWaitSendListBufferSize()
{
    CScopeLock lock(m_csLock);
    size_t nTotal = 0;
    for (COverlappedInfo* pInfo : m_listWaitSend)
        nTotal += pInfo->m_nDataLength;
    return nTotal;
}

// ---- names ------------------------------------------------------------------

// The peer stored by Connect: the object's address as a mark, the length, the address.
int COverlappedSocket::StoredPeerName(sockaddr* pAddress, int* pLength)
{
    const COverlappedSocket* pMark = NULL;
    int nStored = 0;
    std::memcpy(&pMark, m_byAddressArea, sizeof(pMark));
    std::memcpy(&nStored, m_byAddressArea + sizeof(pMark), sizeof(nStored));
    if (pMark != this || (nStored != (int)sizeof(sockaddr_in) && nStored != (int)sizeof(sockaddr_in6)) ||
        *pLength < nStored)
        return 0;
    std::memcpy(pAddress, m_byAddressArea + sizeof(pMark) + sizeof(nStored), static_cast<size_t>(nStored));
    return 1;
}

// The addresses AcceptEx wrote into m_byAddressArea.
int COverlappedSocket::AcceptExName(sockaddr* pAddress, int* pLength, bool bRemote)
{
    LPFN_GETACCEPTEXSOCKADDRS pfnGetAddrs = NULL;
    GUID guid = WSAID_GETACCEPTEXSOCKADDRS;
    DWORD dwBytes = 0;
    if (WSAIoctl(m_hSocket, SIO_GET_EXTENSION_FUNCTION_POINTER, &guid, sizeof(guid), &pfnGetAddrs,
                 sizeof(pfnGetAddrs), &dwBytes, NULL, NULL) == SOCKET_ERROR)
        return 0;
    sockaddr* pLocal = NULL;
    sockaddr* pRemote = NULL;
    int nLocal = 0, nRemote = 0;
    pfnGetAddrs(m_byAddressArea, 0, kAcceptAddressLength, kAcceptAddressLength, &pLocal, &nLocal, &pRemote, &nRemote);
    sockaddr* pFound = bRemote ? pRemote : pLocal;
    int nFound = bRemote ? nRemote : nLocal;
    if (nFound == 0 || pFound == NULL)
        return 0;
    if (nFound > *pLength)
        return 1;
    std::memcpy(pAddress, pFound, nFound);
    *pLength = nFound;
    return 1;
}

int COverlappedSocket::GetPeerName(sockaddr* pAddress, int* pLength)
{
    if (pLength == NULL)
        return 0;
    if (!m_spListenSocket) {
        if (StoredPeerName(pAddress, pLength))
            return 1;
        return getpeername(m_hSocket, pAddress, pLength) == 0 ? 1 : 0;
    }
    return AcceptExName(pAddress, pLength, true);
}

int COverlappedSocket::GetSockName(sockaddr* pAddress, int* pLength)
{
    if (pLength == NULL)
        return 0;
    if (!m_spListenSocket)
        return getsockname(m_hSocket, pAddress, pLength) == 0 ? 1 : 0;
    return AcceptExName(pAddress, pLength, false);
}

namespace {

int TextName(int nResult, const sockaddr_storage& address, CString& strAddress, unsigned int& nPort)
{
    if (!nResult)
        return 0;
    const sockaddr* pAddress = reinterpret_cast<const sockaddr*>(&address);
    nPort = IpPort(pAddress);
    strAddress = IpAddressText(pAddress);
    return 1;
}

}  // namespace

int COverlappedSocket::GetPeerName(CString& strAddress, unsigned int& nPort)
{
    sockaddr_storage address = {};
    int nLength = sizeof(address);
    return TextName(GetPeerName(reinterpret_cast<sockaddr*>(&address), &nLength), address, strAddress, nPort);
}

int COverlappedSocket::GetSockName(CString& strAddress, unsigned int& nPort)
{
    sockaddr_storage address = {};
    int nLength = sizeof(address);
    return TextName(GetSockName(reinterpret_cast<sockaddr*>(&address), &nLength), address, strAddress, nPort);
}

// ---- record mechanics -----------------------------------------------------

void COverlappedSocket::ArmRecord(COverlappedInfo& info, int nType)
{
    info.m_spSocket = shared_from_this();
    info.m_hSocket = m_hSocket;
    info.m_nOperateType = nType;
}

std::shared_ptr<COverlappedSocket> COverlappedSocket::ReleaseRecord(COverlappedInfo* pInfo)
{
    std::shared_ptr<COverlappedSocket> spReleased;
    switch (pInfo->m_nOperateType) {
    case COverlappedInfo::TYPE_RECV:
        spReleased.swap(m_RecvInfo.m_spSocket);
        m_RecvInfo.m_hSocket = INVALID_SOCKET;
        break;
    case COverlappedInfo::TYPE_SEND:
        spReleased.swap(pInfo->m_spSocket);
        delete pInfo;
        break;
    case COverlappedInfo::TYPE_ACCEPT:
    case COverlappedInfo::TYPE_CONNECT:
        spReleased.swap(m_ConnectInfo.m_spSocket);
        m_ConnectInfo.m_hSocket = INVALID_SOCKET;
        break;
    default:
        break;
    }
    return spReleased;
}

int COverlappedSocket::ClaimCloseReport()
{
    if (m_bClosed || m_bCloseClaimed)
        return 0;
    m_bCloseClaimed = 1;
    return 1;
}

void COverlappedSocket::OperationIssued()
{
    ++m_nOperationsPending;
    m_spFactory->OperationIssued();
}

void COverlappedSocket::OperationNotStarted()
{
    --m_nOperationsPending;
    m_spFactory->OperationCompleted();
}

void COverlappedSocket::CompletionTaken()
{
    CScopeLock lock(m_csLock);
    if (--m_nOperationsPending > 0 || m_hHandleToClose == INVALID_SOCKET)
        return;
    closesocket(m_hHandleToClose);
    m_hHandleToClose = INVALID_SOCKET;
}

void COverlappedSocket::CloseHandleWhenIdle(SOCKET hSocket, SOCKET hListenSocket)
{
    if (m_nOperationsPending == 0) {
        closesocket(hSocket);
        return;
    }
    // A handle value must not go back to the system while an operation is
    // pending on it: a new socket could get the same value and (under Wine)
    // the pending receive would take that socket's bytes; and a receive
    // pending at closesocket there may never complete, so its record would
    // hold this socket for ever. Cancel, and let the last completion close it.
    CancelIoEx(reinterpret_cast<HANDLE>(hSocket), NULL);
    // An AcceptEx is an operation of the listen socket's handle.
    if (hListenSocket != INVALID_SOCKET && m_ConnectInfo.m_spSocket)
        CancelIoEx(reinterpret_cast<HANDLE>(hListenSocket), &m_ConnectInfo.m_Overlapped);
    m_hHandleToClose = hSocket;
}

void COverlappedSocket::LeaveFactoryMaps(SOCKET hSocket)
{
    // The entries are dropped after the factory lock is left: one of them may
    // be the last reference but the caller's.
    std::vector<std::shared_ptr<COverlappedSocket>> released;
    COverlappedSocketFactory* pFactory = m_spFactory.get();
    if (pFactory == NULL)
        return;
    CScopeLock factoryLock(pFactory->m_csLock);
    COverlappedSocketFactory::SocketMap* maps[] = {&pFactory->m_mapConnectedSockets, &pFactory->m_mapListenSockets,
                                                   &pFactory->m_mapOpenSockets};
    for (COverlappedSocketFactory::SocketMap* pMap : maps) {
        auto it = pMap->find(hSocket);
        if (it != pMap->end()) {
            released.push_back(std::move(it->second));
            pMap->erase(it);
        }
    }
    factoryLock.Unlock();
}

void COverlappedSocket::DestroySendRecords()
{
    // Caller holds m_csLock and a reference of its own: the records' references
    // to this socket are not the last ones.
    for (COverlappedInfo* pInfo : m_listWaitSend)
        delete pInfo;
    m_listWaitSend.clear();
    for (COverlappedInfo* pInfo : m_vecFreeInfo)
        delete pInfo;
    m_vecFreeInfo.clear();
}
