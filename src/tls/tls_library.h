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

#ifdef __cplusplus
}
#endif

#endif
