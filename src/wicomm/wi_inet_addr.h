// CWiInetAddr: an address of either IP family with its port, beside the
// IPv4-only CWiSockAddr. It parses and prints both families (an IPv6 scope
// id as "%n"), compares them, and gives the sockaddr record to the calls
// that take one.
#ifndef WISOCK_WICOMM_WI_INET_ADDR_H
#define WISOCK_WICOMM_WI_INET_ADDR_H

#include <winsock2.h>
#include <ws2tcpip.h>

#include "mfc/afx.h"

class WISOCK_API CWiInetAddr {
public:
    CWiInetAddr();
    // From a text: "127.0.0.1", "::1", "fe80::1%3" (no brackets, no port).
    // Check IsValid: a text of neither family leaves the value empty.
    CWiInetAddr(const wchar_t* pszAddress, unsigned short nPort);
    // From a record of AF_INET (16 bytes) or AF_INET6 (28 bytes).
    CWiInetAddr(const sockaddr* pAddress, int nLength);

    // 1 and the new value, or 0 with WSAEINVAL and the value unchanged.
    int Parse(const wchar_t* pszAddress, unsigned short nPort);
    int Assign(const sockaddr* pAddress, int nLength);

    int IsValid() const;
    int GetFamily() const;            // AF_INET, AF_INET6, or AF_UNSPEC when empty
    unsigned short GetPort() const;   // host order
    void SetPort(unsigned short nPort);
    unsigned long GetScopeId() const; // IPv6 only, 0 otherwise
    CString ToString() const;         // the address without port; empty when empty

    const sockaddr* GetSockaddr() const { return reinterpret_cast<const sockaddr*>(&m_address); }
    int GetLength() const { return m_nLength; }

    // Same family, address, port and scope id.
    bool operator==(const CWiInetAddr& other) const;
    bool operator!=(const CWiInetAddr& other) const { return !(*this == other); }

private:
    sockaddr_storage m_address;
    int m_nLength;
};

#endif
