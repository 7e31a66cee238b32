// The library's settings, read from the process environment at each OPENSSL_init.
#ifndef SEALKIT_CONFIG_H
#define SEALKIT_CONFIG_H

#include <winsock2.h>
#include <windows.h>

#include <string>

namespace sealkit {

const DWORD kDefaultHandshakeTimeoutMs = 10000;

struct Config {
    std::wstring certFile;     // SEALKIT_CERT: PEM server chain (leaf first)
    std::wstring keyFile;      // SEALKIT_KEY: PEM private key of the leaf
    std::wstring caFile;       // SEALKIT_CA: PEM CA file the client trusts; empty: Windows ROOT store
    std::wstring serverName;   // SEALKIT_SERVER_NAME: name the client checks and sends as SNI
    std::wstring clientCaFile;     // SEALKIT_CLIENT_CA: the server requires client certificates from these CAs
    std::wstring clientCertFile;   // SEALKIT_CLIENT_CERT: PEM chain the client presents
    std::wstring clientKeyFile;    // SEALKIT_CLIENT_KEY: its key (else in SEALKIT_CLIENT_CERT)
    bool verifyPeer = true;    // SEALKIT_VERIFY: only "0" turns it off
    DWORD handshakeTimeoutMs = kDefaultHandshakeTimeoutMs;  // SEALKIT_HANDSHAKE_TIMEOUT_MS
};

// Reads all settings with GetEnvironmentVariableW.
Config ReadConfig();

}  // namespace sealkit

#endif
