#include "sealkit_context.h"

#include "sealkit_trace.h"

#include <winsock2.h>
#include <windows.h>
#include <wincrypt.h>

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <ctime>
#include <mutex>
#include <set>
#include <string>

namespace sealkit {

std::wstring TakeOpenSslError()
{
    unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0)
        return L"no OpenSSL error";
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return Widen(text);
}

namespace {

const char kTls12Suites[] = "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20:!aNULL:!eNULL";

// The DER encodings of the certificates in the Windows Disallowed store,
// read when the client side is prepared.
std::mutex g_disallowedLock;
std::set<std::string> g_disallowed;

std::string Der(X509* cert)
{
    unsigned char* der = nullptr;
    int length = i2d_X509(cert, &der);
    std::string bytes = length > 0 ? std::string((const char*)der, (size_t)length) : std::string();
    OPENSSL_free(der);
    return bytes;
}

std::set<std::string> ReadDisallowedStore()
{
    std::set<std::string> disallowed;
    HCERTSTORE store = CertOpenSystemStoreW(0, L"Disallowed");
    if (!store)
        return disallowed;
    for (PCCERT_CONTEXT cert = CertEnumCertificatesInStore(store, nullptr); cert;
         cert = CertEnumCertificatesInStore(store, cert))
        disallowed.insert(std::string((const char*)cert->pbCertEncoded, cert->cbCertEncoded));
    CertCloseStore(store, 0);
    return disallowed;
}

// A certificate of the Windows Disallowed store is never trusted, wherever
// it stands in the chain.
int RefuseDisallowed(int ok, X509_STORE_CTX* store)
{
    if (!ok)
        return 0;
    X509* cert = X509_STORE_CTX_get_current_cert(store);
    std::lock_guard<std::mutex> guard(g_disallowedLock);
    if (cert && !g_disallowed.empty() && g_disallowed.count(Der(cert))) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_REJECTED);
        return 0;
    }
    return 1;
}

// Whether a ROOT store certificate may vouch for servers: no enhanced key
// usage at all (valid for every use), or one that names server auth.
bool ValidForServerAuth(PCCERT_CONTEXT cert)
{
    DWORD size = 0;
    if (!CertGetEnhancedKeyUsage(cert, 0, nullptr, &size))
        return GetLastError() == (DWORD)CRYPT_E_NOT_FOUND;
    std::string buffer(size, '\0');
    PCERT_ENHKEY_USAGE usage = (PCERT_ENHKEY_USAGE)&buffer[0];
    if (!CertGetEnhancedKeyUsage(cert, 0, usage, &size))
        return false;
    if (usage->cUsageIdentifier == 0)
        return GetLastError() == (DWORD)CRYPT_E_NOT_FOUND;
    for (DWORD i = 0; i < usage->cUsageIdentifier; ++i)
        if (strcmp(usage->rgpszUsageIdentifier[i], szOID_PKIX_KP_SERVER_AUTH) == 0)
            return true;
    return false;
}

SSL_CTX* NewContext(const SSL_METHOD* method)
{
    SSL_CTX* ctx = SSL_CTX_new(method);
    if (!ctx)
        return nullptr;
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    // At least 112-bit security; TLS 1.2 only with forward-secret AEAD suites
    // (TLS 1.3 has nothing else).
    SSL_CTX_set_security_level(ctx, 2);
    if (SSL_CTX_set_cipher_list(ctx, kTls12Suites) != 1) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    // Writes hand over at most one record each and may be offered again from
    // another address after a would-block: the callers re-queue their buffers.
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // No renegotiation: after the handshake, reads and writes never turn into
    // handshake steps that would need the other direction.
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION);
    return ctx;
}

int AddWindowsRootStore(SSL_CTX* ctx)
{
    HCERTSTORE store = CertOpenSystemStoreW(0, L"ROOT");
    if (!store)
        return -1;
    X509_STORE* trusted = SSL_CTX_get_cert_store(ctx);
    int added = 0;
    for (PCCERT_CONTEXT cert = CertEnumCertificatesInStore(store, nullptr); cert;
         cert = CertEnumCertificatesInStore(store, cert)) {
        if (!ValidForServerAuth(cert))
            continue;
        const unsigned char* der = cert->pbCertEncoded;
        X509* x509 = d2i_X509(nullptr, &der, (long)cert->cbCertEncoded);
        if (x509 && X509_STORE_add_cert(trusted, x509))
            ++added;
        X509_free(x509);
    }
    CertCloseStore(store, 0);
    ERR_clear_error();
    return added;
}

bool LoadTrust(SSL_CTX* ctx, const Config& config)
{
    if (!config.caFile.empty()) {
        if (SSL_CTX_load_verify_file(ctx, ToUtf8(config.caFile).c_str()) == 1)
            return true;
        Trace(L"Sealkit: cannot load SEALKIT_CA=%s: %s\n", config.caFile.c_str(), TakeOpenSslError().c_str());
        return false;
    }
    if (AddWindowsRootStore(ctx) < 0)
        Trace(L"Sealkit: cannot open the Windows ROOT certificate store (error %lu)\n", GetLastError());
    return true;
}

// ---- the ephemeral server identity -----------------------------------------

struct Identity {
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
};

std::mutex g_identityLock;
Identity g_identity;

bool AddSubjectAltName(X509* cert, const char* names)
{
    X509V3_CTX v3;
    X509V3_set_ctx_nodb(&v3);
    X509V3_set_ctx(&v3, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &v3, NID_subject_alt_name, names);
    bool ok = ext && X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
    return ok;
}

X509* NewSelfSignedCertificate(EVP_PKEY* key)
{
    X509* cert = X509_new();
    if (!cert)
        return nullptr;
    X509_NAME* name = X509_get_subject_name(cert);
    bool ok = X509_set_version(cert, 2) && ASN1_INTEGER_set(X509_get_serialNumber(cert), (long)time(nullptr)) &&
              X509_gmtime_adj(X509_getm_notBefore(cert), -3600) &&
              X509_gmtime_adj(X509_getm_notAfter(cert), 365L * 24 * 3600) && X509_set_pubkey(cert, key) &&
              X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, (const unsigned char*)"localhost", -1, -1, 0) &&
              X509_set_issuer_name(cert, name) && AddSubjectAltName(cert, "DNS:localhost,IP:127.0.0.1") &&
              X509_sign(cert, key, EVP_sha256()) > 0;
    if (ok)
        return cert;
    X509_free(cert);
    return nullptr;
}

// Makes the pair once; later server contexts share it. Called with g_identityLock held.
bool EnsureEphemeralIdentity()
{
    if (g_identity.cert)
        return true;
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = key ? NewSelfSignedCertificate(key) : nullptr;
    if (!cert) {
        Trace(L"Sealkit: cannot make an ephemeral server certificate: %s\n", TakeOpenSslError().c_str());
        EVP_PKEY_free(key);
        return false;
    }
    g_identity.key = key;
    g_identity.cert = cert;
    Trace(L"Sealkit: SEALKIT_CERT and SEALKIT_KEY are not set: the server uses an ephemeral self-signed certificate for \"localhost\"\n");
    return true;
}

bool UseEphemeralIdentity(SSL_CTX* ctx)
{
    std::lock_guard<std::mutex> guard(g_identityLock);
    return EnsureEphemeralIdentity() && SSL_CTX_use_certificate(ctx, g_identity.cert) == 1 &&
           SSL_CTX_use_PrivateKey(ctx, g_identity.key) == 1;
}

// The key may be left out when the certificate file holds it too. certVar
// and keyVar name the settings for the debug output.
bool UseIdentityFiles(SSL_CTX* ctx, const std::wstring& certFile, const std::wstring& keyFileSetting,
                      const wchar_t* certVar, const wchar_t* keyVar)
{
    if (certFile.empty()) {
        Trace(L"Sealkit: %s is set without %s\n", keyVar, certVar);
        return false;
    }
    const std::wstring& keyFile = keyFileSetting.empty() ? certFile : keyFileSetting;
    if (SSL_CTX_use_certificate_chain_file(ctx, ToUtf8(certFile).c_str()) != 1) {
        Trace(L"Sealkit: cannot load %s=%s: %s\n", certVar, certFile.c_str(), TakeOpenSslError().c_str());
        return false;
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, ToUtf8(keyFile).c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(ctx) != 1) {
        Trace(L"Sealkit: cannot load the key %s: %s\n", keyFile.c_str(), TakeOpenSslError().c_str());
        return false;
    }
    return true;
}

// Mutual TLS, server side: with SEALKIT_CLIENT_CA every client must present a
// certificate that those CAs vouch for.
bool RequireClientCertificates(SSL_CTX* ctx, const Config& config)
{
    if (config.clientCaFile.empty())
        return true;
    std::string caFile = ToUtf8(config.clientCaFile);
    STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(caFile.c_str());
    if (!names || SSL_CTX_load_verify_file(ctx, caFile.c_str()) != 1) {
        sk_X509_NAME_pop_free(names, X509_NAME_free);
        Trace(L"Sealkit: cannot load SEALKIT_CLIENT_CA=%s: %s\n", config.clientCaFile.c_str(), TakeOpenSslError().c_str());
        return false;
    }
    SSL_CTX_set_client_CA_list(ctx, names);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, RefuseDisallowed);
    return true;
}

}  // namespace

SSL_CTX* NewClientContext(const Config& config)
{
    SSL_CTX* ctx = NewContext(TLS_client_method());
    if (!ctx) {
        Trace(L"Sealkit: cannot make the client context: %s\n", TakeOpenSslError().c_str());
        return nullptr;
    }
    {
        std::set<std::string> disallowed = ReadDisallowedStore();
        std::lock_guard<std::mutex> guard(g_disallowedLock);
        g_disallowed.swap(disallowed);
    }
    SSL_CTX_set_verify(ctx, config.verifyPeer ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, RefuseDisallowed);
    bool ok = LoadTrust(ctx, config) &&
              ((config.clientCertFile.empty() && config.clientKeyFile.empty()) ||
               UseIdentityFiles(ctx, config.clientCertFile, config.clientKeyFile, L"SEALKIT_CLIENT_CERT",
                                L"SEALKIT_CLIENT_KEY"));
    if (!ok) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    return ctx;
}

SSL_CTX* NewServerContext(const Config& config)
{
    SSL_CTX* ctx = NewContext(TLS_server_method());
    if (!ctx) {
        Trace(L"Sealkit: cannot make the server context: %s\n", TakeOpenSslError().c_str());
        return nullptr;
    }
    // No session tickets: nothing here resumes sessions, and the client would
    // otherwise find them in its first read.
    SSL_CTX_set_num_tickets(ctx, 0);
    bool ok = config.certFile.empty() && config.keyFile.empty()
                  ? UseEphemeralIdentity(ctx)
                  : UseIdentityFiles(ctx, config.certFile, config.keyFile, L"SEALKIT_CERT", L"SEALKIT_KEY");
    ok = ok && RequireClientCertificates(ctx, config);
    if (!ok) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    return ctx;
}

void ReleaseEphemeralIdentity()
{
    std::lock_guard<std::mutex> guard(g_identityLock);
    X509_free(g_identity.cert);
    EVP_PKEY_free(g_identity.key);
    g_identity = Identity();
}

}  // namespace sealkit
