/* Forced into every compile of the msvc-kit build (see clang-cl-msvc-kit.cmake).
   The kit's runtime headers (Wine's, with a few gaps filled) lack some
   declarations that Visual Studio's UCRT and VC headers have and that the
   standard library's stream and locale parts and GoogleTest use. Each is
   declared here as Visual Studio declares it; the functions are exports of
   ucrtbase.dll and msvcp140.dll. */
#ifndef WISOCK_MSVC_KIT_GAPS_H
#define WISOCK_MSVC_KIT_GAPS_H

#ifndef _MRTIMP2
#define _MRTIMP2 __declspec(dllimport)
#endif
#ifndef _CRT_SATELLITE_CODECVT_IDS_NOIMPORT
#define _CRT_SATELLITE_CODECVT_IDS_NOIMPORT
#endif
/* The vectorized algorithms live in the static part of Visual Studio's
   runtime library, which the kit's stand-in does not have. */
#ifndef _USE_STD_VECTOR_ALGORITHMS
#define _USE_STD_VECTOR_ALGORITHMS 0
#endif
#ifndef _PGLOBAL
#define _PGLOBAL
#endif

#ifndef _CrtSetReportFile
#define _CrtSetReportFile(type, file) ((void*)0)   /* a no-op outside debug builds */
#endif
#ifndef _CRTDBG_FILE_STDERR
#define _CRTDBG_FILE_STDERR ((void*)(intptr_t)-5)
#endif
/* GoogleTest's SEH wrappers need the compiler's SEH support, which this
   toolchain's clang-cl has only in part; C++ exceptions are caught as usual. */
#ifndef GTEST_HAS_SEH
#define GTEST_HAS_SEH 0
#endif

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
__declspec(dllimport) int __cdecl _get_stream_buffer_pointers(FILE* stream, char*** base, char*** pointer, int** count);
__declspec(dllimport) unsigned int __cdecl _set_abort_behavior(unsigned int flags, unsigned int mask);
__declspec(dllimport) intptr_t __cdecl _get_heap_handle(void);
__declspec(dllimport) int __stdcall GetProcessHandleCount(void* process, unsigned long* count);
#ifdef __cplusplus
}
#endif

static __inline int localtime_s(struct tm* tm, const time_t* time) { return _localtime64_s(tm, time); }

#ifdef __cplusplus
extern "C++" {
inline long __cdecl abs(long value) { return labs(value); }
inline long long __cdecl abs(long long value) { return llabs(value); }
}
#endif

#endif
