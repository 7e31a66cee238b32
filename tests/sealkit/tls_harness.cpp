#include "tls_harness.h"

#include <thread>

namespace {

WinsockScope g_winsock;

}  // namespace

SocketPair::SocketPair(const char* address)
{
    SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = inet_addr(address);
    int len = sizeof(addr);
    if (bind(listener, (sockaddr*)&addr, sizeof(addr)) == 0 && listen(listener, 1) == 0 &&
        getsockname(listener, (sockaddr*)&addr, &len) == 0) {
        client = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        if (connect(client, (sockaddr*)&addr, sizeof(addr)) == 0)
            server = accept(listener, nullptr, nullptr);
    }
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
