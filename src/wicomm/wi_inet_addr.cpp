#include "wicomm/wi_inet_addr.h"

#include <cstring>

#include "module/ip_address.h"

CWiInetAddr::CWiInetAddr() : m_address(), m_nLength(0) {}

CWiInetAddr::CWiInetAddr(const wchar_t* pszAddress, unsigned short nPort) : m_address(), m_nLength(0)
{
    Parse(pszAddress, nPort);
}

CWiInetAddr::CWiInetAddr(const sockaddr* pAddress, int nLength) : m_address(), m_nLength(0)
{
    Assign(pAddress, nLength);
}

int CWiInetAddr::Parse(const wchar_t* pszAddress, unsigned short nPort)
{
    sockaddr_storage parsed;
    int nLength = 0;
    if (!IpAddressFromText(pszAddress, nPort, parsed, nLength))
        return 0;
    m_address = parsed;
    m_nLength = nLength;
    return 1;
}

int CWiInetAddr::Assign(const sockaddr* pAddress, int nLength)
{
    if (pAddress == nullptr || nLength <= 0 || IpAddressLength(pAddress->sa_family) != nLength) {
        WSASetLastError(WSAEINVAL);
        return 0;
    }
    std::memset(&m_address, 0, sizeof(m_address));
    std::memcpy(&m_address, pAddress, static_cast<size_t>(nLength));
    m_nLength = nLength;
    return 1;
}

int CWiInetAddr::IsValid() const { return m_nLength != 0 ? 1 : 0; }

int CWiInetAddr::GetFamily() const { return m_nLength != 0 ? m_address.ss_family : AF_UNSPEC; }

unsigned short CWiInetAddr::GetPort() const { return m_nLength != 0 ? IpPort(GetSockaddr()) : 0; }

void CWiInetAddr::SetPort(unsigned short nPort)
{
    if (m_address.ss_family == AF_INET6)
        reinterpret_cast<sockaddr_in6*>(&m_address)->sin6_port = htons(nPort);
    else if (m_address.ss_family == AF_INET)
        reinterpret_cast<sockaddr_in*>(&m_address)->sin_port = htons(nPort);
}

unsigned long CWiInetAddr::GetScopeId() const
{
    if (m_nLength == 0 || m_address.ss_family != AF_INET6)
        return 0;
    return reinterpret_cast<const sockaddr_in6*>(&m_address)->sin6_scope_id;
}

CString CWiInetAddr::ToString() const { return m_nLength != 0 ? IpAddressText(GetSockaddr()) : CString(); }

bool CWiInetAddr::operator==(const CWiInetAddr& other) const
{
    if (m_nLength != other.m_nLength)
        return false;
    if (m_nLength == 0)
        return true;
    if (m_address.ss_family == AF_INET) {
        const sockaddr_in* a = reinterpret_cast<const sockaddr_in*>(&m_address);
        const sockaddr_in* b = reinterpret_cast<const sockaddr_in*>(&other.m_address);
        return a->sin_addr.s_addr == b->sin_addr.s_addr && a->sin_port == b->sin_port;
    }
    const sockaddr_in6* a = reinterpret_cast<const sockaddr_in6*>(&m_address);
    const sockaddr_in6* b = reinterpret_cast<const sockaddr_in6*>(&other.m_address);
    return std::memcmp(&a->sin6_addr, &b->sin6_addr, sizeof(a->sin6_addr)) == 0 && a->sin6_port == b->sin6_port &&
           a->sin6_scope_id == b->sin6_scope_id;
}
