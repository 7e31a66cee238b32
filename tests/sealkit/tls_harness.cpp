#include "tls_harness.h"

#include <thread>

namespace {

WinsockScope g_winsock;

}  // namespace

SocketPair::SocketPair(const char* address)
{
    unsigned short port = 0;
    SOCKET listener = ListenLoopback(port, 1, address);
    client = ConnectLoopback(port, address);
    if (client != INVALID_SOCKET)
        server = accept(listener, nullptr, nullptr);
    closesocket(listener);
}

SocketPair::~SocketPair()
{
    closesocket(client);
    closesocket(server);
}

bool Handshake(SocketPair& sockets, HSSL& client, HSSL& server)
{
    std::thread acceptor([&] { server = OPENSSL_accept(sockets.server); });
    client = OPENSSL_connect(sockets.client);
    acceptor.join();
    return client != 0 && server != 0;
}

TlsPair::~TlsPair()
{
    if (client)
        OPENSSL_shutdown(client);
    if (server)
        OPENSSL_shutdown(server);
}

void SealkitTest::SetUp()
{
    UseTestCertificates();
    SetSetting(L"SEALKIT_HANDSHAKE_TIMEOUT_MS", nullptr);
}

void SealkitTest::Start()
{
    OPENSSL_init(0);
    OPENSSL_init(1);
    m_started = true;
}

void SealkitTest::Stop()
{
    if (m_started)
        OPENSSL_uninit();
    m_started = false;
}
