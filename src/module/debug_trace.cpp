#include "module/debug_trace.h"

#include <cstdarg>

void WiTrace(LPCWSTR pszFormat, ...)
{
    CString text;
    va_list args;
    va_start(args, pszFormat);
    text.FormatV(pszFormat, args);
    va_end(args);
    OutputDebugStringW(text);
}

void WiTraceInto(CString& strBuffer, LPCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    strBuffer.FormatV(pszFormat, args);
    va_end(args);
    OutputDebugStringW(strBuffer);
}
