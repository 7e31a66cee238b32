// CWiSockAddr: an IPv4 socket address as a value. It is a sockaddr_in with
// constructors, assignments and conversions around it, and a text form
// parsed and printed by Winsock (WSAStringToAddressW, WSAAddressToStringW).
// A value has no lock: it belongs to one thread at a time.
#ifndef WISOCK_WICOMM_WI_SOCK_ADDR_H
#define WISOCK_WICOMM_WI_SOCK_ADDR_H

#include <winsock2.h>
#include <windows.h>

#include <cstddef>

#include "mfc/afx.h"
#include "module/export.h"

class WISOCK_API CWiSockAddr : public sockaddr_in {
public:
    CWiSockAddr();
    CWiSockAddr(CWiSockAddr& other);
    CWiSockAddr(sockaddr addr);
    CWiSockAddr(sockaddr_in addr);
    // Both in host byte order.
    CWiSockAddr(DWORD dwAddress, WORD wPort);
    // The text as Winsock parses it; the port is wPort, whatever the text says.
    CWiSockAddr(const wchar_t* pszAddress, WORD wPort);
    virtual ~CWiSockAddr();

    CWiSockAddr& operator=(const CWiSockAddr& other);
    CWiSockAddr& operator=(const sockaddr& addr);
    CWiSockAddr& operator=(const sockaddr_in& addr);
    // The address only, in host byte order; family and port stay.
    CWiSockAddr& operator=(const unsigned long& ulAddress);
    // Text: a bad text leaves the address as it was; a good one sets the port
    // from the text, or 0 without one.
    CWiSockAddr& operator=(const char* pszAddress);
    CWiSockAddr& operator=(const wchar_t* pszAddress);

    operator sockaddr*();
    operator const sockaddr*() const;
    operator sockaddr_in*();
    operator const sockaddr_in*() const;
    operator sockaddr() const;
    operator sockaddr_in() const;   // a plain conversion takes the base; this one is called by name
    // The address in host byte order; 0 for a family other than AF_INET.
    operator unsigned long() const;

    // The address without the port, or null if Winsock can't print it. The
    // text stays good until the next ToString, the next assignment or the end
    // of the object.
    const wchar_t* ToString();
    // 1 with the text in the buffer; 0 without a text, without a buffer, or
    // when nSize (characters) can't hold the text and its terminator.
    int ToString(char* pszBuffer, size_t nSize);
    int ToString(wchar_t* pszBuffer, size_t nSize);
    int ToString(CString& strAddress);

protected:
    CWiSockAddr* operator&();
    void SafeDeleteString();

    wchar_t* m_pString;

private:
    sockaddr_in& Record() { return *this; }
    const sockaddr_in& Record() const { return *this; }
    void Parse(const wchar_t* pszAddress);
};

#endif
