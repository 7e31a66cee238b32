// The host names that applications expect at given peers: the name a TLS
// client checks the server's certificate against (and sends as SNI).
#ifndef SEALKIT_NAMES_H
#define SEALKIT_NAMES_H

#include <winsock2.h>

#include <string>

namespace sealkit {

// Stores (or, with an empty name, forgets) the name expected at peer; false
// for an address that is neither IPv4 nor IPv6.
bool ExpectServerName(const sockaddr* peer, int length, const std::wstring& name);
// The name expected at the socket's peer, or empty. peerText gets the peer's
// address as text (empty if the socket has no peer).
std::wstring ExpectedServerName(SOCKET socket, std::string& peerText);

}  // namespace sealkit

#endif
