// Addresses of both IP families, shared by the two stacks. IPv4 texts are
// read with inet_addr and written with inet_ntoa, as the stacks always did;
// a text that is not IPv4 is read as IPv6 (scope id after '%', no brackets,
// no port) and written without brackets or port.
#ifndef WISOCK_MODULE_IP_ADDRESS_H
#define WISOCK_MODULE_IP_ADDRESS_H

#include <winsock2.h>
#include <ws2tcpip.h>

#include "mfc/afx.h"

// The address in pszText with nPort (host order). False with WSAEINVAL set
// if the text is neither IPv4 nor IPv6.
bool IpAddressFromText(const wchar_t* pszText, unsigned short nPort, sockaddr_storage& address, int& nLength);
bool IpAddressFromText(const char* pszText, unsigned short nPort, sockaddr_storage& address, int& nLength);
// The wildcard address of a family (INADDR_ANY or in6addr_any) with nPort.
int IpWildcard(int nFamily, unsigned short nPort, sockaddr_storage& address);
// The address as text without the port; empty for a family that is neither.
CString IpAddressText(const sockaddr* pAddress);
// The port of either family, in host order.
unsigned short IpPort(const sockaddr* pAddress);
// The size of the address record of the family, 0 for another family.
int IpAddressLength(int nFamily);
// The family a socket was made with, AF_UNSPEC if it can't be read.
int SocketFamily(SOCKET hSocket);
// An overlapped TCP socket of the family; an IPv6 one takes IPv4 peers too
// (IPV6_V6ONLY off), as a dual-stack socket.
SOCKET NewTcpSocket(int nFamily, DWORD dwFlags);

#endif
