// CreateSocket: the bare object, a bound socket, an accepting socket, a pool.
#include "factory/overlapped_socket_factory.h"
#include "tls/overlapped_ssl.h"

#include <mswsock.h>

#include "module/ip_address.h"
#include "module/scope_lock.h"
#include "overlapped/local_time.h"

namespace {

// Room for either family's address, as AcceptEx wants it (16 bytes more).
const DWORD kAcceptAddressLength = sizeof(sockaddr_in6) + 16;

// The family of the address a socket is made for: IPv6 when the text is an
// IPv6 address, else IPv4 (also without a text, and for a bad text, which
// Bind then refuses).
int FamilyOfText(const wchar_t* pszAddress)
{
    sockaddr_storage address;
    int nLength = 0;
    if (pszAddress == NULL || !IpAddressFromText(pszAddress, 0, address, nLength))
        return AF_INET;
    return address.ss_family;
}

}  // namespace

std::shared_ptr<COverlappedSocket> COverlappedSocketFactory::CreateSocket()
{
    std::shared_ptr<COverlappedSocket> spSocket;
    switch (m_nSocketKind) {
    case KIND_PLAIN:
        spSocket.reset(new COverlappedSocket);
        break;
    case KIND_SSL:
        spSocket.reset(new COverlappedSSL);
        break;
    default:
        return spSocket;
    }
    spSocket->m_spFactory = shared_from_this();
    return spSocket;
}

std::shared_ptr<COverlappedSocket> COverlappedSocketFactory::CreateSocket(
    std::shared_ptr<ISocketNotifyObject> spNotifyObject, unsigned int nPort, const wchar_t* pszAddress)
{
    if (RefusedAfterDestory())
        return std::shared_ptr<COverlappedSocket>();
    std::shared_ptr<COverlappedSocket> spSocket = CreateSocket();
    if (!spNotifyObject || !spSocket)
        return std::shared_ptr<COverlappedSocket>();
    SOCKET hSocket = NewTcpSocket(FamilyOfText(pszAddress), WSA_FLAG_OVERLAPPED);
    if (hSocket == INVALID_SOCKET)
        return std::shared_ptr<COverlappedSocket>();
    if (CreateIoCompletionPort(reinterpret_cast<HANDLE>(hSocket), m_hCompletionPort, static_cast<ULONG_PTR>(hSocket),
                               0) == NULL) {
        int nError = static_cast<int>(::GetLastError());
        closesocket(hSocket);
        WSASetLastError(nError);
        return std::shared_ptr<COverlappedSocket>();
    }
    spSocket->m_hSocket = hSocket;
    if (!spSocket->Bind(nPort, pszAddress)) {
        int nError = WSAGetLastError();
        spSocket->Close();
        WSASetLastError(nError);
        return std::shared_ptr<COverlappedSocket>();
    }
    spSocket->m_spNotifyObject = spNotifyObject;
    spSocket->m_dtCreateTime = CurrentLocalOleDate();
    if (!RegisterOpenSocket(spSocket)) {
        // Destory came between the test above and here: its CloseAllSocket
        // can't have seen this socket, so it is closed here, unheard of.
        spSocket->m_spNotifyObject.reset();
        spSocket->Close();
        WSASetLastError(WSANOTINITIALISED);
        return std::shared_ptr<COverlappedSocket>();
    }
    return spSocket;
}

// Calls after Destory fail: the factory has no threads left to serve a socket.
bool COverlappedSocketFactory::RefusedAfterDestory()
{
    if (!m_bDestroyed)
        return false;
    WSASetLastError(WSANOTINITIALISED);
    return true;
}

// Enters a socket in m_mapOpenSockets, unless Destory has begun (under the
// lock, so that its CloseAllSocket sees every socket that got in).
bool COverlappedSocketFactory::RegisterOpenSocket(const std::shared_ptr<COverlappedSocket>& spSocket)
{
    CScopeLock lock(m_csLock);
    if (m_bDestroyed)
        return false;
    if (!spSocket->IsClose())
        m_mapOpenSockets[spSocket->m_hSocket] = spSocket;
    return true;
}

// An accepting socket that never got going: its handle is closed and the
// reference its record took is given back, so the object goes with the
// caller's last reference. The application never saw it, so it hears nothing.
void COverlappedSocketFactory::AbandonAcceptSocket(const std::shared_ptr<COverlappedSocket>& spSocket)
{
    int nError = WSAGetLastError();
    std::shared_ptr<COverlappedSocket> spReleased, spListen;
    std::shared_ptr<ISocketNotifyObject> spNotify;
    {
        CScopeLock lock(spSocket->m_csLock);
        closesocket(spSocket->m_hSocket);
        spSocket->m_hSocket = INVALID_SOCKET;
        spSocket->m_bClosed = 1;
        spReleased = spSocket->ReleaseRecord(&spSocket->m_ConnectInfo);
        spListen.swap(spSocket->m_spListenSocket);
        spNotify.swap(spSocket->m_spNotifyObject);
    }
    WSASetLastError(nError);
}

std::shared_ptr<COverlappedSocket> COverlappedSocketFactory::CreateSocket(
    std::shared_ptr<ISocketNotifyObject> spNotifyObject, std::shared_ptr<COverlappedSocket> spListenSocket)
{
    // A factory that is ending starts no new accepts (a worker replacing one
    // would otherwise race with Destory's last CloseAllSocket).
    if (!spNotifyObject || !spListenSocket || RefusedAfterDestory())
        return std::shared_ptr<COverlappedSocket>();
    std::shared_ptr<COverlappedSocket> spSocket = CreateSocket();
    if (!spSocket)
        return spSocket;
    LPFN_ACCEPTEX pfnAcceptEx = NULL;
    GUID guid = WSAID_ACCEPTEX;
    DWORD dwBytes = 0;
    if (WSAIoctl(spListenSocket->m_hSocket, SIO_GET_EXTENSION_FUNCTION_POINTER, &guid, sizeof(guid), &pfnAcceptEx,
                 sizeof(pfnAcceptEx), &dwBytes, NULL, NULL) == SOCKET_ERROR)
        return std::shared_ptr<COverlappedSocket>();
    // The accepted connection is of the listener's family.
    SOCKET hSocket = NewTcpSocket(SocketFamily(spListenSocket->m_hSocket), WSA_FLAG_OVERLAPPED);
    if (hSocket == INVALID_SOCKET)
        return std::shared_ptr<COverlappedSocket>();
    spSocket->m_hSocket = hSocket;
    spSocket->m_spNotifyObject = spNotifyObject;
    spSocket->m_dtCreateTime = CurrentLocalOleDate();
    spSocket->ArmRecord(spSocket->m_ConnectInfo, COverlappedInfo::TYPE_ACCEPT);
    spSocket->m_spListenSocket = spListenSocket;
    if (CreateIoCompletionPort(reinterpret_cast<HANDLE>(hSocket), m_hCompletionPort, static_cast<ULONG_PTR>(hSocket),
                               0) == NULL) {
        WSASetLastError(static_cast<int>(::GetLastError()));
        AbandonAcceptSocket(spSocket);
        return std::shared_ptr<COverlappedSocket>();
    }
    if (!IssueAccept(spSocket, spListenSocket->m_hSocket, pfnAcceptEx)) {
        AbandonAcceptSocket(spSocket);
        return std::shared_ptr<COverlappedSocket>();
    }
    // From here on a worker may already be handling the accept's completion.
    if (!RegisterOpenSocket(spSocket)) {
        spSocket->m_spNotifyObject.reset();
        spSocket->Close();   // Destory's CloseAllSocket has run without it
        WSASetLastError(WSANOTINITIALISED);
        return std::shared_ptr<COverlappedSocket>();
    }
    {
        CScopeLock lock(spListenSocket->m_csLock);
        // An accept whose completion a worker has taken is a connection, not
        // an outstanding accept, even if it completed before it got here.
        if (!spSocket->IsClose() && !spSocket->m_bAcceptTaken)
            spListenSocket->m_setAcceptSockets.insert(spSocket);
    }
    return spSocket;
}

// AcceptEx under the accept socket's lock, so that a Close can't run between
// counting the operation and issuing it. 1 if it is under way.
int COverlappedSocketFactory::IssueAccept(const std::shared_ptr<COverlappedSocket>& spSocket, SOCKET hListenSocket,
                                          LPFN_ACCEPTEX pfnAcceptEx)
{
    CScopeLock lock(spSocket->m_csLock);
    spSocket->OperationIssued();
    DWORD dwReceived = 0;
    if (!pfnAcceptEx(hListenSocket, spSocket->m_hSocket, spSocket->m_byAddressArea, 0, kAcceptAddressLength,
                     kAcceptAddressLength, &dwReceived, &spSocket->m_ConnectInfo.m_Overlapped) &&
        WSAGetLastError() != ERROR_IO_PENDING) {
        int nError = WSAGetLastError();
        spSocket->OperationNotStarted();
        WSASetLastError(nError);
        return 0;
    }
    return 1;
}

std::vector<std::shared_ptr<COverlappedSocket>> COverlappedSocketFactory::CreateSocket(
    std::shared_ptr<ISocketNotifyObject> spNotifyObject, std::shared_ptr<COverlappedSocket> spListenSocket, int nCount)
{
    std::vector<std::shared_ptr<COverlappedSocket>> sockets;
    if (!spNotifyObject || !spListenSocket || nCount < 0)
        return sockets;
    if (nCount == 0) {
        CScopeLock lock(spListenSocket->m_csLock);
        nCount = spListenSocket->m_nBacklog;
    }
    for (int i = 0; i < nCount; ++i)
        sockets.push_back(CreateSocket(spNotifyObject, spListenSocket));
    return sockets;
}
