// What a TLS peer's close was, asked of the TLS library after FD_CLOSE (both stacks).
#ifndef WISOCK_TLS_TLS_PEER_CLOSE_H
#define WISOCK_TLS_TLS_PEER_CLOSE_H

#include "tls/tls_library.h"

// The caller serialises the handle's calls. 0 after a clean TLS close (or
// when nothing is known yet), WSAECONNRESET when TCP closed without the TLS
// close alert (data may have been cut off), else the connection's error.
int TlsPeerCloseError(HSSL hSSL);

#endif
