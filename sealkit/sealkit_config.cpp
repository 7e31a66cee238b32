#include "sealkit_config.h"

#include "sealkit_trace.h"

#include <cwchar>

namespace sealkit {

namespace {

std::wstring Environment(const wchar_t* name)
{
    std::wstring value(256, L'\0');
    for (;;) {
        DWORD n = GetEnvironmentVariableW(name, &value[0], (DWORD)value.size());
        if (n == 0)
            return std::wstring();
        if (n < value.size()) {
            value.resize(n);
            return value;
        }
        value.resize(n);
    }
}

DWORD ParseTimeout(const std::wstring& text)
{
    if (text.empty())
        return kDefaultHandshakeTimeoutMs;
    wchar_t* end = nullptr;
    unsigned long long value = wcstoull(text.c_str(), &end, 10);
    if (*end != L'\0' || value == 0 || value > 0x7FFFFFFF || text[0] == L'-') {
        Trace(L"Sealkit: SEALKIT_HANDSHAKE_TIMEOUT_MS=%s is not a positive number of milliseconds; using %lu\n",
              text.c_str(), (unsigned long)kDefaultHandshakeTimeoutMs);
        return kDefaultHandshakeTimeoutMs;
    }
    return (DWORD)value;
}

}  // namespace

Config ReadConfig()
{
    Config config;
    config.certFile = Environment(L"SEALKIT_CERT");
    config.keyFile = Environment(L"SEALKIT_KEY");
    config.caFile = Environment(L"SEALKIT_CA");
    config.serverName = Environment(L"SEALKIT_SERVER_NAME");
    config.clientCaFile = Environment(L"SEALKIT_CLIENT_CA");
    config.clientCertFile = Environment(L"SEALKIT_CLIENT_CERT");
    config.clientKeyFile = Environment(L"SEALKIT_CLIENT_KEY");
    config.verifyPeer = Environment(L"SEALKIT_VERIFY") != L"0";
    config.handshakeTimeoutMs = ParseTimeout(Environment(L"SEALKIT_HANDSHAKE_TIMEOUT_MS"));
    return config;
}

}  // namespace sealkit
