#include "sealkit_trace.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdarg>
#include <cstdio>

namespace sealkit {

void Trace(const wchar_t* format, ...)
{
    wchar_t text[1024];
    va_list args;
    va_start(args, format);
    int n = _vsnwprintf(text, sizeof(text) / sizeof(text[0]) - 1, format, args);
    va_end(args);
    text[n < 0 ? sizeof(text) / sizeof(text[0]) - 1 : n] = L'\0';
    OutputDebugStringW(text);
}

std::wstring Widen(const char* text)
{
    int n = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    if (n <= 1)
        return std::wstring();
    std::wstring wide(n - 1, L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text, -1, &wide[0], n);
    return wide;
}

std::string ToUtf8(const std::wstring& text)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
    if (n <= 1)
        return std::string();
    std::string narrow(n - 1, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, &narrow[0], n, nullptr, nullptr);
    return narrow;
}

}  // namespace sealkit
