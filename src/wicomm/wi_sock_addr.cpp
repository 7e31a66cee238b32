#include "wicomm/wi_sock_addr.h"

#include <cstring>
#include <cwchar>
#include <string>

namespace {

const int kTextLength = 40;   // wide characters, enough for any IPv4 text

std::wstring WidenThreadCodePage(const char* text)
{
    int n = MultiByteToWideChar(CP_THREAD_ACP, 0, text, -1, nullptr, 0);
    if (n <= 1)
        return std::wstring();
    std::wstring wide(n - 1, L'\0');
    MultiByteToWideChar(CP_THREAD_ACP, 0, text, -1, &wide[0], n);
    return wide;
}

}  // namespace

CWiSockAddr::CWiSockAddr() : m_pString(nullptr)
{
    memset(&Record(), 0, sizeof(sockaddr_in));
    sin_family = AF_INET;
}

CWiSockAddr::CWiSockAddr(CWiSockAddr& other) : m_pString(nullptr)
{
    memset(&Record(), 0, sizeof(sockaddr_in));
    sin_family = other.sin_family;
    sin_port = other.sin_port;
    sin_addr = other.sin_addr;
}

CWiSockAddr::CWiSockAddr(sockaddr addr) : m_pString(nullptr)
{
    memcpy(&Record(), &addr, sizeof(sockaddr_in));
}

CWiSockAddr::CWiSockAddr(sockaddr_in addr) : m_pString(nullptr)
{
    Record() = addr;
}

CWiSockAddr::CWiSockAddr(DWORD dwAddress, WORD wPort) : m_pString(nullptr)
{
    memset(&Record(), 0, sizeof(sockaddr_in));
    sin_family = AF_INET;
    sin_addr.s_addr = htonl(dwAddress);
    sin_port = htons(wPort);
}

CWiSockAddr::CWiSockAddr(const wchar_t* pszAddress, WORD wPort) : m_pString(nullptr)
{
    memset(&Record(), 0, sizeof(sockaddr_in));
    Parse(pszAddress);
    sin_port = htons(wPort);
}

CWiSockAddr::~CWiSockAddr()
{
    SafeDeleteString();
}

// Winsock does all the parsing (no name look-up, no format of our own). The
// record changes only when the text was good, so a bad text leaves it as it was.
void CWiSockAddr::Parse(const wchar_t* pszAddress)
{
    if (!pszAddress)
        return;
    std::wstring text(pszAddress);   // the call takes a writable string
    sockaddr_in parsed = Record();
    int nLength = sizeof(sockaddr_in);
    if (WSAStringToAddressW(&text[0], AF_INET, nullptr, reinterpret_cast<sockaddr*>(&parsed), &nLength) == 0)
        Record() = parsed;
}

CWiSockAddr& CWiSockAddr::operator=(const CWiSockAddr& other)
{
    if (&other.Record() == &Record())
        return *this;
    SafeDeleteString();
    Record() = other.Record();
    return *this;
}

CWiSockAddr& CWiSockAddr::operator=(const sockaddr& addr)
{
    if (static_cast<const void*>(&addr) == static_cast<const void*>(&Record()))
        return *this;
    SafeDeleteString();
    memmove(&Record(), &addr, sizeof(sockaddr_in));   // the source may overlap the record
    return *this;
}

CWiSockAddr& CWiSockAddr::operator=(const sockaddr_in& addr)
{
    if (&addr == &Record())
        return *this;
    SafeDeleteString();
    Record() = addr;
    return *this;
}

CWiSockAddr& CWiSockAddr::operator=(const unsigned long& ulAddress)
{
    SafeDeleteString();
    sin_addr.s_addr = htonl(ulAddress);
    return *this;
}

CWiSockAddr& CWiSockAddr::operator=(const char* pszAddress)
{
    if (static_cast<const void*>(pszAddress) == static_cast<const void*>(m_pString))
        return *this;
    // Widened before the cache goes: the text may lie inside it.
    std::wstring strText = pszAddress ? WidenThreadCodePage(pszAddress) : std::wstring();
    SafeDeleteString();
    if (pszAddress)
        Parse(strText.c_str());
    return *this;
}

CWiSockAddr& CWiSockAddr::operator=(const wchar_t* pszAddress)
{
    // Assigning the object's own text would parse what the cache drop frees;
    // a text that points elsewhere into the cache is copied before it goes.
    if (pszAddress == m_pString)
        return *this;
    std::wstring strText = pszAddress ? std::wstring(pszAddress) : std::wstring();
    SafeDeleteString();
    Parse(pszAddress ? strText.c_str() : nullptr);
    return *this;
}

CWiSockAddr::operator sockaddr*()
{
    return reinterpret_cast<sockaddr*>(&Record());
}

CWiSockAddr::operator const sockaddr*() const
{
    return reinterpret_cast<const sockaddr*>(&Record());
}

CWiSockAddr::operator sockaddr_in*()
{
    return &Record();
}

CWiSockAddr::operator const sockaddr_in*() const
{
    return &Record();
}

CWiSockAddr::operator sockaddr() const
{
    sockaddr copy;
    memcpy(&copy, &Record(), sizeof(copy));
    return copy;
}

CWiSockAddr::operator sockaddr_in() const
{
    return Record();
}

CWiSockAddr::operator unsigned long() const
{
    return sin_family == AF_INET ? ntohl(sin_addr.s_addr) : 0;
}

CWiSockAddr* CWiSockAddr::operator&()
{
    return this;
}

void CWiSockAddr::SafeDeleteString()
{
    if (m_pString) {
        delete[] m_pString;
        m_pString = nullptr;
    }
}

const wchar_t* CWiSockAddr::ToString()
{
    SafeDeleteString();
    m_pString = new wchar_t[kTextLength]();
    sockaddr_in noPort = Record();   // the text shows no port
    noPort.sin_port = 0;
    DWORD nLength = kTextLength;
    if (WSAAddressToStringW(reinterpret_cast<sockaddr*>(&noPort), sizeof(sockaddr_in), nullptr, m_pString, &nLength) != 0) {
        SafeDeleteString();
        return nullptr;
    }
    return m_pString;
}

int CWiSockAddr::ToString(char* pszBuffer, size_t nSize)
{
    const wchar_t* text = ToString();
    if (!text || !pszBuffer || wcslen(text) + 1 > nSize)
        return 0;
    memset(pszBuffer, 0, nSize);
    WideCharToMultiByte(CP_THREAD_ACP, 0, text, -1, pszBuffer, (int)nSize, nullptr, nullptr);
    return 1;
}

int CWiSockAddr::ToString(wchar_t* pszBuffer, size_t nSize)
{
    const wchar_t* text = ToString();
    if (!text || !pszBuffer || wcslen(text) + 1 > nSize)
        return 0;
    wmemset(pszBuffer, 0, nSize);
    wcscpy(pszBuffer, text);
    return 1;
}

int CWiSockAddr::ToString(CString& strAddress)
{
    strAddress.Empty();
    const wchar_t* text = ToString();
    if (!text)
        return 0;
    strAddress = text;
    return 1;
}
