// CWiTcp: construction, option strings, connecting and listening, the moment
// a connection counts as open, and the time-out and read-size settings.
#include "wicomm/wi_tcp.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "module/debug_trace.h"
#include "module/ip_address.h"
#include "module/scope_lock.h"

IMPLEMENT_DYNAMIC(CWiTcp, CWiSocket)

namespace {

const size_t kMaxAddressText = 64;                        // the address field is shorter (IPv6 with a scope)
const int kDefaultReadSize = 4096;
const int kReadSlack = 100;                               // a buffer holds this much more than asked

// "localport,address,port"; false if a field is missing or bad. The address
// is IPv4 or IPv6 (its colons are no separators here).
bool ParseConnectOption(const char* pszText, unsigned int& nLocalPort, sockaddr_storage& remote, int& nRemote)
{
    const char* pComma1 = strchr(pszText, ',');
    if (pComma1 == nullptr)
        return false;
    const char* pComma2 = strchr(pComma1 + 1, ',');
    if (pComma2 == nullptr)
        return false;
    size_t nAddressLength = (size_t)(pComma2 - pComma1 - 1);
    if (nAddressLength >= kMaxAddressText)
        return false;
    char szAddress[kMaxAddressText] = {};
    memcpy(szAddress, pComma1 + 1, nAddressLength);
    nLocalPort = (unsigned int)atoi(pszText);
    unsigned int nPort = (unsigned int)atoi(pComma2 + 1);
    return nPort != 0 && IpAddressFromText(szAddress, (u_short)nPort, remote, nRemote);
}

// "localport,address,port" of a connection, the address as IpAddressText
// writes it (IPv4 as inet_ntoa does).
CString ConnectionText(unsigned int nLocalPort, const sockaddr* pRemote, unsigned int nPort)
{
    CString strAddress = IpAddressText(pRemote);
    CString strText;
    strText.Format(L"%u,%s,%u", nLocalPort, (LPCWSTR)strAddress, nPort);
    return strText;
}

}  // namespace

CWiTcp::CWiTcp(int nSSLMode)
    : m_bConnected(0), m_nType(TYPE_UNKNOWN), m_bBytesTimeoutValid(0), m_pReadBuffer(nullptr), m_nBytesToRead(0),
      m_nReadBufferSize(0), m_nBytesRead(0), m_hSSL(0), m_nReadDepth(0), m_pNextReadBuffer(nullptr),
      m_nNextBytesToRead(0), m_nNextReadBufferSize(0), m_nDeliveries(0)
{
    m_nClassID = CLASSID_WITCP;
    m_nSSLMode = nSSLMode;
}

CWiTcp::~CWiTcp()
{
    delete[] m_pReadBuffer;
    delete[] m_pNextReadBuffer;
}

void CWiTcp::Startup()
{
    OPENSSL_init(0);
    OPENSSL_init(1);
}

void CWiTcp::Cleanup() { OPENSSL_uninit(); }

int CWiTcp::Open(const char* pszOption)
{
    if (pszOption == nullptr)
        return 0;
    const char* p = pszOption;
    while (*p != '\0' && isspace((unsigned char)*p))
        ++p;
    char chKind = (char)tolower((unsigned char)*p);
    if (chKind != 's' && chKind != 'c')
        return 0;
    const char* pColon = strchr(p, ':');
    if (pColon == nullptr)
        return 0;
    return chKind == 's' ? OpenTcpListen(pColon + 1) : OpenTcpConnect(pColon + 1);
}

int CWiTcp::OpenTcpConnect(const char* pszOption)
{
    unsigned int nLocalPort = 0;
    sockaddr_storage remote;
    int nRemote = 0;
    if (pszOption == nullptr || !ParseConnectOption(pszOption, nLocalPort, remote, nRemote)) {
        Close();
        return 0;
    }
    // A connection in server mode would read TLS with no handshake behind it
    // (no handle), and its window thread would spin on the data it can't take.
    if (m_nSSLMode == 1) {
        WiTrace(L"OpenSSL_connect failed\n");
        Close();
        return 0;
    }
    m_hSocket = NewTcpSocket(remote.ss_family, WSA_FLAG_OVERLAPPED);
    if (m_hSocket == INVALID_SOCKET)
        return 0;
    sockaddr_storage local;
    int nLocal = IpWildcard(remote.ss_family, (u_short)nLocalPort, local);
    int nResult = bind(m_hSocket, (sockaddr*)&local, nLocal);
    if (nResult == 0)
        nResult = SelectEvents(kMaskIdle);
    if (nResult == 0) {
        if (WSAConnect(m_hSocket, (sockaddr*)&remote, nRemote, NULL, NULL, NULL, NULL) == 0) {
            OnWiOpen(0);
            m_nType = TYPE_CONNECT;
            return 1;
        }
        if (WSAGetLastError() == WSAEWOULDBLOCK) {
            int nLength = sizeof(local);
            if (getsockname(m_hSocket, (sockaddr*)&local, &nLength) != 0) {
                Close();
                return 0;
            }
            CScopeLock lock(m_csComm);
            m_strOption = ConnectionText(IpPort((sockaddr*)&local), (sockaddr*)&remote, IpPort((sockaddr*)&remote));
            m_strOpenOption = CString(L"C:") + m_strOption;
            m_nType = TYPE_CONNECT;
            return 1;
        }
    }
    closesocket(m_hSocket);
    m_hSocket = INVALID_SOCKET;
    Close();
    return 0;
}

int CWiTcp::OpenTcpListen(const char* pszOption)
{
    unsigned int nPort = pszOption ? (unsigned int)atoi(pszOption) : 0;
    if (nPort == 0) {
        Close();
        return 0;
    }
    // A listener in client mode would make client handshakes on the accepted side.
    if (m_nSSLMode == 0) {
        WiTrace(L"OPENSSL_accept return null\n");
        Close();
        return 0;
    }
    // "port[,reuse[,address]]": without an address, every IPv4 address; "::"
    // takes IPv6 and IPv4 clients.
    const char* pComma = strchr(pszOption, ',');
    int nReuse = (pComma != nullptr && pComma[1] != '\0') ? atoi(pComma + 1) : 0;
    const char* pAddress = pComma != nullptr ? strchr(pComma + 1, ',') : nullptr;
    sockaddr_storage local;
    int nLocal = IpWildcard(AF_INET, (u_short)nPort, local);
    if (pAddress != nullptr && !IpAddressFromText(pAddress + 1, (u_short)nPort, local, nLocal)) {
        Close();
        return 0;
    }
    m_hSocket = NewTcpSocket(local.ss_family, WSA_FLAG_OVERLAPPED);
    if (m_hSocket == INVALID_SOCKET)
        return 0;
    setsockopt(m_hSocket, SOL_SOCKET, SO_REUSEADDR, (const char*)&nReuse, sizeof(nReuse));
    if (bind(m_hSocket, (sockaddr*)&local, nLocal) != 0 || listen(m_hSocket, 0x7FFFFFFF) != 0) {
        closesocket(m_hSocket);
        m_hSocket = INVALID_SOCKET;
        Close();
        return 0;
    }
    {
        CScopeLock lock(m_csComm);
        if (pAddress != nullptr)
            m_strOption.Format(L"%u,%d,%s", nPort & 0xFFFF, nReuse, (LPCWSTR)IpAddressText((sockaddr*)&local));
        else
            m_strOption.Format(L"%u", nPort & 0xFFFF);
        m_strOpenOption = CString(L"S:") + m_strOption;
        m_nType = TYPE_LISTEN;
    }
    if (!CallOpenNotify(shared_from_this()))
        return 0;
    SelectEvents(FD_ACCEPT);
    return 1;
}

bool CWiTcp::SetConnectedOption()
{
    sockaddr_storage local = {}, peer = {};
    int nLocal = sizeof(local), nPeer = sizeof(peer);
    if (getsockname(m_hSocket, (sockaddr*)&local, &nLocal) != 0 ||
        getpeername(m_hSocket, (sockaddr*)&peer, &nPeer) != 0)
        return false;
    CScopeLock lock(m_csComm);
    m_strOption = ConnectionText(IpPort((sockaddr*)&local), (sockaddr*)&peer, IpPort((sockaddr*)&peer));
    m_strOpenOption = CString(L"C:") + m_strOption;
    return true;
}

bool CWiTcp::HandshakeAsClient()
{
    if (m_hSSL != 0) {
        OPENSSL_shutdown(m_hSSL);
        m_hSSL = 0;
    }
    SetToNonBlocking(0);
    m_hSSL = OPENSSL_connect(m_hSocket);
    SetToNonBlocking(1);
    return m_hSSL != 0;
}

void CWiTcp::OnWiOpen(int nErrorCode)
{
    if (nErrorCode != 0) {
        if (!IsValidObject(this))
            return;
        if (CallErrorNotify(OPEN, nErrorCode, shared_from_this()))
            Close();
        return;
    }
    if (!SetConnectedOption()) {
        Close();
        return;
    }
    // Each block goes out as it is sent: a reply in two sends must not wait
    // for the peer's delayed acknowledgement of the first.
    BOOL bNoDelay = TRUE;
    setsockopt(m_hSocket, IPPROTO_TCP, TCP_NODELAY, (const char*)&bNoDelay, sizeof(bNoDelay));
    if (m_nSSLMode == 0 && !HandshakeAsClient()) {
        WiTrace(L"OpenSSL_connect failed\n");
        Close();
        return;
    }
    m_bConnected = 1;
    m_nType = TYPE_CONNECT;
    if (!CallOpenNotify(shared_from_this()))
        return;
    WiSetTimeouts(0, 0, 0, 1024);
    AsyncSelect();
}

int CWiTcp::IsOpen()
{
    if (!IsValidObject(this))
        return 0;
    CScopeLock lock(m_csComm);
    if (m_hSocket == INVALID_SOCKET)
        return 0;
    return (m_nType == TYPE_LISTEN || (m_nType == TYPE_CONNECT && m_bConnected)) ? 1 : 0;
}

void CWiTcp::SetBytesTimeoutValid(int bValid) { m_bBytesTimeoutValid = bValid; }

int CWiTcp::SetTimeouts(DWORD dwTimeout1, DWORD dwTimeout2, DWORD dwTimeout3, DWORD dwBytes)
{
    if (m_nType != TYPE_CONNECT)
        return 0;
    CWiSocket::SetTimeouts(dwTimeout1, dwTimeout2, dwTimeout3, dwBytes);
    WiSetTimeouts(dwTimeout1, dwTimeout2, dwTimeout3, dwBytes);
    return 1;
}

int CWiTcp::WiSetTimeouts(DWORD dwTimeout1, DWORD dwTimeout2, DWORD dwTimeout3, DWORD dwBytes)
{
    CScopeLock lock(m_csComm);
    if (m_nType != TYPE_CONNECT || !IsWindow(m_hWnd))
        return 0;
    DWORD dwMax = std::max(dwTimeout1, std::max(dwTimeout2, dwTimeout3));
    if (!m_bConnected) {
        // Connect time-out: a running timer is not restarted.
        if (dwMax != 0)
            StartTimer(dwMax, false);
        return 1;
    }
    // A read size whose buffer (with its slack) can't be an int is ignored.
    if ((dwBytes != 0 || m_nReadBufferSize == 0) && dwBytes <= (DWORD)(INT_MAX - kReadSlack))
        PrepareReadBuffer(dwBytes != 0 ? (int)dwBytes : kDefaultReadSize);
    lock.Unlock();
    AsyncSelect();
    if (dwMax != 0) {
        lock.Lock();
        StartTimer(dwMax, true);
    }
    return 1;
}

// Makes the buffer fit nWant bytes. The buffer only grows; while the
// application reads the current one, a new one waits in the next fields.
void CWiTcp::PrepareReadBuffer(int nWant)
{
    if (nWant <= m_nReadBufferSize) {
        m_nBytesToRead = nWant;
        return;
    }
    char* pBuffer = new char[nWant + kReadSlack];
    if (m_nBytesRead > 0 && m_pReadBuffer != nullptr)
        memcpy(pBuffer, m_pReadBuffer, std::min(m_nBytesRead, nWant + kReadSlack));
    // A delivery from the time it left the lock until OnReadComplete returned
    // holds m_pReadBuffer: the new buffer waits for it.
    if (m_bInReadNotify || m_nDeliveries > 0) {
        delete[] m_pNextReadBuffer;
        m_pNextReadBuffer = pBuffer;
        m_nNextBytesToRead = nWant;
        m_nNextReadBufferSize = nWant + kReadSlack;
    } else {
        delete[] m_pReadBuffer;
        m_pReadBuffer = pBuffer;
        m_nBytesToRead = nWant;
        m_nReadBufferSize = nWant + kReadSlack;
    }
}
