// The eight exported functions (named OPENSSL_* by sealkit.def), the owner
// count and the registry of open TLS handles.
#include "sealkit_config.h"
#include "sealkit_connection.h"
#include "sealkit_handles.h"
#include "sealkit_names.h"
#include "sealkit_context.h"
#include "sealkit_trace.h"

#include <mutex>

namespace sealkit {

namespace {

// Shared by all threads. Connections in use are not locked here: calls for
// one handle never overlap, calls for different handles run in parallel, and
// finding a handle's connection takes no lock.
struct Library {
    std::mutex lock;
    int owners = 0;
    SSL_CTX* client = nullptr;   // mode 0
    SSL_CTX* server = nullptr;   // mode 1
    // The settings each side was made with: a client init changes nothing of
    // the server side, and the other way round.
    Config clientConfig;
    Config serverConfig;
    HandleTable handles;
};

// Never destroyed: at unload OpenSSL's own clean-up may already have run.
Library& Lib()
{
    static Library* library = new Library;
    return *library;
}

void Replace(SSL_CTX*& slot, SSL_CTX* fresh)
{
    SSL_CTX* old = slot;
    slot = fresh;
    SSL_CTX_free(old);   // open connections keep their own reference
}

ULONG_PTR Open(SOCKET socket, bool server)
{
    Library& lib = Lib();
    SSL_CTX* ctx;
    Config config;
    {
        std::lock_guard<std::mutex> guard(lib.lock);
        ctx = server ? lib.server : lib.client;
        if (ctx)
            SSL_CTX_up_ref(ctx);
        config = server ? lib.serverConfig : lib.clientConfig;
    }
    if (!ctx) {
        Trace(L"Sealkit: %s: no %s context (OPENSSL_init(%d) missing or failed)\n",
              server ? L"OPENSSL_accept" : L"OPENSSL_connect", server ? L"server" : L"client", server ? 1 : 0);
        return 0;
    }
    Connection* connection = Connection::Open(socket, ctx, server, config);
    SSL_CTX_free(ctx);
    if (!connection)
        return 0;
    ULONG_PTR handle = lib.handles.Add(connection);
    if (handle == 0) {
        Trace(L"Sealkit: too many TLS handles open\n");
        delete connection;
    }
    return handle;
}

// The connection behind a handle, or null for 0 or a handle already shut down.
Connection* Find(ULONG_PTR handle)
{
    return Lib().handles.Find(handle);
}

int InvalidCall()
{
    WSASetLastError(WSAEINVAL);
    return -1;
}

}  // namespace

}  // namespace sealkit

using namespace sealkit;

extern "C" {

// Mode 0 prepares the client side and opens an owner; mode 1 prepares the
// server side (and opens an owner only if none is open, for a caller that
// serves alone). Every call reads the environment again.
int Sealkit_Init(int nMode)
{
    if (nMode != 0 && nMode != 1)
        return 0;
    Config config = ReadConfig();
    SSL_CTX* fresh = nMode == 0 ? NewClientContext(config) : NewServerContext(config);
    Library& lib = Lib();
    std::lock_guard<std::mutex> guard(lib.lock);
    if (nMode == 0 || lib.owners == 0)
        ++lib.owners;
    SSL_CTX*& slot = nMode == 0 ? lib.client : lib.server;
    if (!fresh) {
        // A bad setting must not break what works: other owners go on with
        // the side as it was (the reason is in the line written before).
        if (slot)
            Trace(L"Sealkit: OPENSSL_init(%d) failed: the %s side keeps its previous settings\n", nMode,
                  nMode == 0 ? L"client" : L"server");
        return 0;
    }
    Replace(slot, fresh);
    (nMode == 0 ? lib.clientConfig : lib.serverConfig) = config;
    return 1;
}

// The last owner's call frees both contexts and the ephemeral certificate.
int Sealkit_Uninit(void)
{
    Library& lib = Lib();
    size_t open;
    {
        std::lock_guard<std::mutex> guard(lib.lock);
        if (lib.owners == 0)
            return 0;
        if (--lib.owners > 0)
            return 1;
        Replace(lib.client, nullptr);
        Replace(lib.server, nullptr);
    }
    open = lib.handles.Count();
    ReleaseEphemeralIdentity();
    if (open > 0)
        Trace(L"Sealkit: %u TLS handles still open at the last OPENSSL_uninit\n", (unsigned)open);
    return 1;
}

ULONG_PTR Sealkit_Connect(SOCKET hSocket)
{
    return Open(hSocket, false);
}

ULONG_PTR Sealkit_Accept(SOCKET hSocket)
{
    return Open(hSocket, true);
}

int Sealkit_Read(ULONG_PTR hSSL, void* pBuffer, int nSize)
{
    Connection* connection = Find(hSSL);
    if (!connection || nSize < 0 || (!pBuffer && nSize > 0))
        return InvalidCall();
    return connection->Read(pBuffer, nSize);
}

int Sealkit_Write(ULONG_PTR hSSL, const void* pBuffer, int nSize)
{
    Connection* connection = Find(hSSL);
    if (!connection || nSize < 0 || (!pBuffer && nSize > 0))
        return InvalidCall();
    return connection->Write(pBuffer, nSize);
}

int Sealkit_Pending(ULONG_PTR hSSL)
{
    Connection* connection = Find(hSSL);
    return connection ? connection->Pending() : 0;
}

// Sends a close alert without waiting for the peer and frees the handle; the
// socket stays open for the caller to close.
int Sealkit_Shutdown(ULONG_PTR hSSL)
{
    Connection* connection = Lib().handles.Remove(hSSL);
    if (connection == nullptr)
        return 0;
    connection->Shutdown();
    delete connection;
    return 1;
}

int Sealkit_ExpectServerName(const sockaddr* pPeer, int nLength, const wchar_t* pszName)
{
    return sealkit::ExpectServerName(pPeer, nLength, pszName != nullptr ? pszName : L"") ? 1 : 0;
}

}  // extern "C"
