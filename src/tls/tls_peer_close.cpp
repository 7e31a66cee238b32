#include "tls/tls_peer_close.h"

int TlsPeerCloseError(HSSL hSSL)
{
    // The first read that meets the close gives 0 and no error whatever the
    // close was; the one after it tells them apart.
    char byte;
    for (int i = 0; i < 2 && hSSL != 0; ++i) {
        int nResult = OPENSSL_read(hSSL, &byte, 0);
        int nError = WSAGetLastError();
        if (nError == WSAEDISCON || nError == WSAEWOULDBLOCK)
            return 0;
        if (nResult < 0)
            return nError;
    }
    return 0;
}
