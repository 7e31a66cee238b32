#include "module/ip_address.h"

#include <cstring>
#include <string>

namespace {

bool IsIpv4Text(const char* pszText, in_addr& address)
{
    address.s_addr = inet_addr(pszText);
    return address.s_addr != INADDR_NONE;
}

bool Ipv6FromText(const wchar_t* pszText, unsigned short nPort, sockaddr_storage& address, int& nLength)
{
    // WSAStringToAddressW would also take "[addr]:port"; our texts carry the
    // port apart, so brackets are malformed here.
    if (wcschr(pszText, L'[') != nullptr || wcschr(pszText, L']') != nullptr)
        return false;
    sockaddr_in6 parsed = {};
    INT nSize = sizeof(parsed);
    std::wstring strText(pszText);   // the function takes a non-const text
    if (WSAStringToAddressW(&strText[0], AF_INET6, NULL, reinterpret_cast<sockaddr*>(&parsed), &nSize) != 0 ||
        parsed.sin6_family != AF_INET6 || parsed.sin6_port != 0)
        return false;
    parsed.sin6_port = htons(nPort);
    std::memset(&address, 0, sizeof(address));
    std::memcpy(&address, &parsed, sizeof(parsed));
    nLength = sizeof(parsed);
    return true;
}

bool Ipv4Into(const in_addr& ipv4, unsigned short nPort, sockaddr_storage& address, int& nLength)
{
    sockaddr_in parsed = {};
    parsed.sin_family = AF_INET;
    parsed.sin_addr = ipv4;
    parsed.sin_port = htons(nPort);
    std::memset(&address, 0, sizeof(address));
    std::memcpy(&address, &parsed, sizeof(parsed));
    nLength = sizeof(parsed);
    return true;
}

}  // namespace

bool IpAddressFromText(const wchar_t* pszText, unsigned short nPort, sockaddr_storage& address, int& nLength)
{
    if (pszText == nullptr) {
        WSASetLastError(WSAEINVAL);
        return false;
    }
    // An IPv4 text is ASCII; anything else can only be IPv6 (or nothing).
    std::string strNarrow;
    for (const wchar_t* p = pszText; *p != L'\0'; ++p)
        strNarrow.push_back(*p < 0x80 ? static_cast<char>(*p) : '?');
    in_addr ipv4;
    if (IsIpv4Text(strNarrow.c_str(), ipv4))
        return Ipv4Into(ipv4, nPort, address, nLength);
    if (Ipv6FromText(pszText, nPort, address, nLength))
        return true;
    WSASetLastError(WSAEINVAL);
    return false;
}

// The narrow texts of option strings: widened, then read as the wide ones.
bool IpAddressFromText(const char* pszText, unsigned short nPort, sockaddr_storage& address, int& nLength)
{
    std::wstring strWide;
    for (const char* p = pszText; p != nullptr && *p != '\0'; ++p)
        strWide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*p)));
    return IpAddressFromText(pszText != nullptr ? strWide.c_str() : nullptr, nPort, address, nLength);
}

int IpWildcard(int nFamily, unsigned short nPort, sockaddr_storage& address)
{
    std::memset(&address, 0, sizeof(address));
    if (nFamily == AF_INET6) {
        sockaddr_in6* p6 = reinterpret_cast<sockaddr_in6*>(&address);
        p6->sin6_family = AF_INET6;
        // sin6_addr stays all zeros: the IPv6 wildcard
        p6->sin6_port = htons(nPort);
        return sizeof(sockaddr_in6);
    }
    sockaddr_in* p4 = reinterpret_cast<sockaddr_in*>(&address);
    p4->sin_family = AF_INET;
    p4->sin_addr.s_addr = htonl(INADDR_ANY);
    p4->sin_port = htons(nPort);
    return sizeof(sockaddr_in);
}

CString IpAddressText(const sockaddr* pAddress)
{
    if (pAddress == nullptr)
        return CString();
    if (pAddress->sa_family == AF_INET)
        return CString(inet_ntoa(reinterpret_cast<const sockaddr_in*>(pAddress)->sin_addr));
    if (pAddress->sa_family != AF_INET6)
        return CString();
    sockaddr_in6 copy;
    std::memcpy(&copy, pAddress, sizeof(copy));
    copy.sin6_port = 0;   // no port: the text is the address alone
    wchar_t szText[64] = {};
    DWORD nSize = 64;
    if (WSAAddressToStringW(reinterpret_cast<sockaddr*>(&copy), sizeof(copy), NULL, szText, &nSize) != 0)
        return CString();
    return CString(szText);
}

unsigned short IpPort(const sockaddr* pAddress)
{
    if (pAddress->sa_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6*>(pAddress)->sin6_port);
    return ntohs(reinterpret_cast<const sockaddr_in*>(pAddress)->sin_port);
}

int IpAddressLength(int nFamily)
{
    if (nFamily == AF_INET)
        return sizeof(sockaddr_in);
    if (nFamily == AF_INET6)
        return sizeof(sockaddr_in6);
    return 0;
}

int SocketFamily(SOCKET hSocket)
{
    WSAPROTOCOL_INFOW info = {};
    int nSize = sizeof(info);
    if (getsockopt(hSocket, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info), &nSize) != 0)
        return AF_UNSPEC;
    return info.iAddressFamily;
}

SOCKET NewTcpSocket(int nFamily, DWORD dwFlags)
{
    SOCKET hSocket = WSASocketW(nFamily, SOCK_STREAM, IPPROTO_TCP, NULL, 0, dwFlags);
    if (hSocket != INVALID_SOCKET && nFamily == AF_INET6) {
        DWORD dwV6Only = 0;
        setsockopt(hSocket, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&dwV6Only), sizeof(dwV6Only));
    }
    return hSocket;
}
