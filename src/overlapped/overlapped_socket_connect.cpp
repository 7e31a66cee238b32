// Bind (with the port-owner rule), Connect (ConnectEx) and Listen.
#include "overlapped/overlapped_socket.h"

#include <iphlpapi.h>
#include <mswsock.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "factory/overlapped_socket_factory.h"
#include "module/ip_address.h"
#include "module/scope_lock.h"

namespace {

typedef DWORD(WINAPI* PFN_GETEXTENDEDTCPTABLE)(PVOID, PDWORD, BOOL, ULONG, TCP_TABLE_CLASS, ULONG);

const int kTcpStateListen = 2;

// Wide to narrow in the thread's code page; false if the conversion fails.
bool ToNarrow(const wchar_t* pszWide, std::string& strNarrow)
{
    int nSize = WideCharToMultiByte(CP_THREAD_ACP, 0, pszWide, -1, NULL, 0, NULL, NULL);
    if (nSize <= 0)
        return false;
    strNarrow.assign(static_cast<size_t>(nSize), '\0');
    if (WideCharToMultiByte(CP_THREAD_ACP, 0, pszWide, -1, &strNarrow[0], nSize, NULL, NULL) <= 0)
        return false;
    strNarrow.resize(static_cast<size_t>(nSize - 1));
    return true;
}

// Looks for a listener on nPort in a table read from the IP helper.
int FindListenerRow(const MIB_TCPTABLE_OWNER_PID* pTable, int nPort, DWORD* pdwProcessId)
{
    for (DWORD i = 0; i < pTable->dwNumEntries; ++i) {
        const MIB_TCPROW_OWNER_PID& row = pTable->table[i];
        if (row.dwState == kTcpStateListen && ntohs(static_cast<u_short>(row.dwLocalPort)) == nPort) {
            *pdwProcessId = row.dwOwningPid;
            return 1;
        }
    }
    return 0;
}

int QueryTcpTable(PFN_GETEXTENDEDTCPTABLE pfnGetTable, int nPort, DWORD* pdwProcessId)
{
    DWORD dwSize = 0;
    DWORD dwResult = pfnGetTable(NULL, &dwSize, TRUE, AF_INET, TCP_TABLE_OWNER_PID_ALL, 0);
    if (dwResult != NO_ERROR && dwResult != ERROR_INSUFFICIENT_BUFFER)
        return -1;
    void* pTable = std::malloc(dwSize);
    if (pTable == NULL)
        return -1;
    int nResult = -1;
    if (pfnGetTable(pTable, &dwSize, TRUE, AF_INET, TCP_TABLE_OWNER_PID_ALL, 0) == NO_ERROR)
        nResult = FindListenerRow(static_cast<MIB_TCPTABLE_OWNER_PID*>(pTable), nPort, pdwProcessId);
    std::free(pTable);
    return nResult;
}

}  // namespace

int COverlappedSocket::FindTcpPortOwner(int nPort, DWORD* pdwProcessId)
{
    *pdwProcessId = 0;
    HMODULE hIpHelper = LoadLibraryW(L"iphlpapi.dll");
    if (hIpHelper == NULL)
        return -1;
    PFN_GETEXTENDEDTCPTABLE pfnGetTable =
        reinterpret_cast<PFN_GETEXTENDEDTCPTABLE>(GetProcAddress(hIpHelper, "GetExtendedTcpTable"));
    int nResult = pfnGetTable != NULL ? QueryTcpTable(pfnGetTable, nPort, pdwProcessId) : -1;
    FreeLibrary(hIpHelper);
    return nResult;
}

int COverlappedSocket::Bind(const sockaddr* pAddress, int nLength)
{
    u_short nPort = reinterpret_cast<const sockaddr_in*>(pAddress)->sin_port;
    if (nPort != 0) {
        DWORD dwOwner = 0;
        if (FindTcpPortOwner(ntohs(nPort), &dwOwner) == 1) {
            WSASetLastError(WSAEADDRINUSE);
            return 0;
        }
        int nReuse = 1;
        SetSockOpt(SO_REUSEADDR, &nReuse, sizeof(nReuse), SOL_SOCKET);
    }
    return bind(m_hSocket, pAddress, nLength) == 0 ? 1 : 0;
}

int COverlappedSocket::Bind(unsigned int nPort, const wchar_t* pszAddress)
{
    sockaddr_storage address;
    int nLength = 0;
    if (pszAddress == NULL)
        nLength = IpWildcard(SocketFamily(m_hSocket), static_cast<u_short>(nPort), address);
    else if (!IpAddressFromText(pszAddress, static_cast<u_short>(nPort), address, nLength))
        return 0;
    return Bind(reinterpret_cast<const sockaddr*>(&address), nLength);
}

// A socket made without an address is bound to the IPv4 wildcard; a connect
// to an IPv6 peer (or the other way round) gets a new handle of the peer's
// family in its place, bound to the same port. Only a socket that has done
// nothing yet may change; 0 with the error otherwise.
int COverlappedSocket::TakeFamilyOf(const sockaddr* pAddress)
{
    const int nFamily = pAddress->sa_family;
    SOCKET hOld = INVALID_SOCKET, hNew = INVALID_SOCKET;
    {
        CScopeLock lock(m_csLock);
        int nRefusal = ConnectRefusal();
        if (nRefusal == 0 && IpAddressLength(nFamily) == 0)
            nRefusal = WSAEAFNOSUPPORT;
        if (nRefusal != 0) {
            lock.Unlock();
            WSASetLastError(nRefusal);
            return 0;
        }
        if (SocketFamily(m_hSocket) == nFamily)
            return 1;
        sockaddr_storage local = {}, wildcard;
        int nLocal = sizeof(local);
        getsockname(m_hSocket, reinterpret_cast<sockaddr*>(&local), &nLocal);
        const unsigned short nLocalPort = IpPort(reinterpret_cast<sockaddr*>(&local));
        int nWildcard = IpWildcard(local.ss_family, nLocalPort, wildcard);
        // A socket bound to an address of its own keeps its family.
        if (nLocal != nWildcard || std::memcmp(&local, &wildcard, static_cast<size_t>(nWildcard)) != 0) {
            lock.Unlock();
            WSASetLastError(WSAEAFNOSUPPORT);
            return 0;
        }
        nWildcard = IpWildcard(nFamily, nLocalPort, wildcard);
        hNew = NewTcpSocket(nFamily, WSA_FLAG_OVERLAPPED);
        if (hNew == INVALID_SOCKET || bind(hNew, reinterpret_cast<sockaddr*>(&wildcard), nWildcard) != 0 ||
            CreateIoCompletionPort(reinterpret_cast<HANDLE>(hNew), m_spFactory->m_hCompletionPort,
                                   static_cast<ULONG_PTR>(hNew), 0) == NULL) {
            int nError = WSAGetLastError();
            if (hNew != INVALID_SOCKET)
                closesocket(hNew);
            lock.Unlock();
            WSASetLastError(nError);
            return 0;
        }
        hOld = m_hSocket;
        m_hSocket = hNew;
    }
    RekeyOpenSocket(hOld, hNew);
    closesocket(hOld);
    return 1;
}

// The factory's open map holds the socket under its handle.
void COverlappedSocket::RekeyOpenSocket(SOCKET hOld, SOCKET hNew)
{
    std::shared_ptr<COverlappedSocket> spEntry;
    CScopeLock factoryLock(m_spFactory->m_csLock);
    auto it = m_spFactory->m_mapOpenSockets.find(hOld);
    if (it == m_spFactory->m_mapOpenSockets.end())
        return;
    spEntry = std::move(it->second);
    m_spFactory->m_mapOpenSockets.erase(it);
    // A Close since the handle changed has left the maps under the new one
    // already (finding nothing): the entry must not come back.
    if (!m_bClosed)
        m_spFactory->m_mapOpenSockets[hNew] = spEntry;
    factoryLock.Unlock();
}

int COverlappedSocket::Connect(const sockaddr* pAddress, int nLength)
{
    LPFN_CONNECTEX pfnConnectEx = NULL;
    GUID guid = WSAID_CONNECTEX;
    DWORD dwBytes = 0;
    if (WSAIoctl(m_hSocket, SIO_GET_EXTENSION_FUNCTION_POINTER, &guid, sizeof(guid), &pfnConnectEx,
                 sizeof(pfnConnectEx), &dwBytes, NULL, NULL) == SOCKET_ERROR)
        return 0;
    const size_t nHeader = sizeof(COverlappedSocket*) + sizeof(int);
    if (pAddress == NULL || nLength < 0 || static_cast<size_t>(nLength) > sizeof(m_byAddressArea) - nHeader) {
        WSASetLastError(WSAEINVAL);
        return 0;
    }
    if (!TakeFamilyOf(pAddress))
        return 0;
    std::shared_ptr<COverlappedSocket> spReleased;
    CScopeLock lock(m_csLock);
    // A second Connect, or one on an accepting socket, would take over the
    // record that the operation in flight still uses (and release its reference).
    int nRefusal = ConnectRefusal();
    if (nRefusal != 0) {
        lock.Unlock();
        WSASetLastError(nRefusal);
        return 0;
    }
    // The peer is stored before ConnectEx, so that GetPeerName already has it
    // inside an OnConnect that comes at once.
    COverlappedSocket* pMark = this;
    std::memcpy(m_byAddressArea, &pMark, sizeof(pMark));
    std::memcpy(m_byAddressArea + sizeof(pMark), &nLength, sizeof(nLength));
    std::memcpy(m_byAddressArea + nHeader, pAddress, static_cast<size_t>(nLength));
    ArmRecord(m_ConnectInfo, COverlappedInfo::TYPE_CONNECT);
    OperationIssued();
    BOOL bDone = pfnConnectEx(m_hSocket, pAddress, nLength, NULL, 0, NULL, &m_ConnectInfo.m_Overlapped);
    int nError = WSAGetLastError();
    if (!bDone && nError != ERROR_IO_PENDING) {
        // No completion will come: give back the record's reference now, or
        // the socket would never be destroyed.
        spReleased = ReleaseRecord(&m_ConnectInfo);
        OperationNotStarted();
        std::memset(m_byAddressArea, 0, nHeader);
    }
    lock.Unlock();
    if (spReleased) {
        spReleased.reset();
        WSASetLastError(nError);
        return 0;
    }
    return 1;
}

// Caller holds m_csLock. The error that forbids a connect now, or 0.
int COverlappedSocket::ConnectRefusal()
{
    if (m_bClosed || m_hSocket == INVALID_SOCKET)
        return WSAENOTSOCK;
    if (m_ConnectInfo.m_spSocket)
        return WSAEALREADY;   // a connect or an accept is in flight
    if (m_RecvInfo.m_spSocket || m_spListenSocket)
        return WSAEISCONN;    // connected, or accepted
    return 0;
}

int COverlappedSocket::Connect(const wchar_t* pszHost, unsigned int nPort)
{
    if (pszHost == NULL) {
        WSASetLastError(WSAEINVAL);
        return 0;
    }
    std::string strHost;
    if (!ToNarrow(pszHost, strHost)) {
        WSASetLastError(WSA_NOT_ENOUGH_MEMORY);
        return 0;
    }
    sockaddr_storage address;
    int nLength = 0;
    if (IpAddressFromText(pszHost, static_cast<u_short>(nPort), address, nLength))
        return Connect(reinterpret_cast<const sockaddr*>(&address), nLength);
    // Not an address: a host name, looked up for IPv4.
    sockaddr_in named = {};
    named.sin_family = AF_INET;
    hostent* pHost = gethostbyname(strHost.c_str());
    if (pHost == NULL || pHost->h_addr_list[0] == NULL) {
        WSASetLastError(WSAEINVAL);
        return 0;
    }
    std::memcpy(&named.sin_addr, pHost->h_addr_list[0], sizeof(named.sin_addr));
    named.sin_port = htons(static_cast<u_short>(nPort));
    return Connect(reinterpret_cast<const sockaddr*>(&named), sizeof(named));
}

int COverlappedSocket::Listen(int nBacklog)
{
    SOCKET hSocket;
    {
        CScopeLock lock(m_csLock);
        hSocket = m_hSocket;
        m_nBacklog = nBacklog;
    }
    if (listen(hSocket, nBacklog) != 0)
        return 0;
    std::shared_ptr<COverlappedSocket> spSelf = shared_from_this();
    CScopeLock lock(m_spFactory->m_csLock);
    m_spFactory->m_mapListenSockets[hSocket] = spSelf;
    return 1;
}
