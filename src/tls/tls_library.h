// The TLS library's interface: eight C functions exported by sealkit.dll.
// All TLS policy (versions, certificates, verification) lives in the library;
// wisock hands over only a mode, a socket, a TLS handle and a buffer.
#ifndef WISOCK_TLS_LIBRARY_H
#define WISOCK_TLS_LIBRARY_H

#include <winsock2.h>
#include <windows.h>

// A TLS handle: opaque, pointer-sized, 0 for none.
typedef ULONG_PTR HSSL;

#if defined(SEALKIT_BUILDING_DLL)
#define SEALKIT_API
#else
#define SEALKIT_API __declspec(dllimport)
#endif

#ifdef __cplusplus
extern "C" {
#endif

SEALKIT_API int OPENSSL_init(int nMode);
SEALKIT_API int OPENSSL_uninit(void);
SEALKIT_API HSSL OPENSSL_connect(SOCKET hSocket);
SEALKIT_API HSSL OPENSSL_accept(SOCKET hSocket);
SEALKIT_API int OPENSSL_read(HSSL hSSL, void* pBuffer, int nSize);
SEALKIT_API int OPENSSL_write(HSSL hSSL, const void* pBuffer, int nSize);
SEALKIT_API int OPENSSL_pending(HSSL hSSL);
SEALKIT_API int OPENSSL_shutdown(HSSL hSSL);
// Not one of the eight: names the host that a TLS client expects at a peer
// (address and port) for the connections it makes there from now on; the
// server's certificate must be for that name, which is also sent as SNI. A
// null or empty name forgets it. 1, or 0 for an address that isn't IPv4/IPv6.
// Without a name for the peer, SEALKIT_SERVER_NAME is used, and without that
// the certificate must be for the peer's IP address.
SEALKIT_API int OPENSSL_expect_server_name(const sockaddr* pPeer, int nLength, const wchar_t* pszName);

#ifdef __cplusplus
}
#endif

#endif
