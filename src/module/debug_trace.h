// The one log of the system: wide text formatted with CString::Format and
// written with OutputDebugStringW. Callers give the exact text, "\n" included.
#ifndef WISOCK_MODULE_DEBUG_TRACE_H
#define WISOCK_MODULE_DEBUG_TRACE_H

#include "mfc/afx.h"

// Formats into a temporary string and writes it.
WISOCK_API void WiTrace(LPCWSTR pszFormat, ...);
// Formats into the caller's string (a worker keeps one per thread) and writes it.
WISOCK_API void WiTraceInto(CString& strBuffer, LPCWSTR pszFormat, ...);

#endif
