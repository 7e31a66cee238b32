// Debug output of the TLS library. sealkit.dll doesn't link wisock, so it
// keeps its own small helper over OutputDebugStringW.
#ifndef SEALKIT_TRACE_H
#define SEALKIT_TRACE_H

#include <string>

namespace sealkit {

// Writes one printf-style wide text (Microsoft meaning: %s is wide) to the debugger.
void Trace(const wchar_t* format, ...);

// A narrow (ASCII or UTF-8) text widened, for OpenSSL's messages.
std::wstring Widen(const char* text);
// A wide text as UTF-8, for file names handed to OpenSSL.
std::string ToUtf8(const std::wstring& text);

}  // namespace sealkit

#endif
