#include "tls_harness.h"

#include "support/pattern.h"
#include "support/test_pki.h"

#include <cstdio>
#include <thread>

void SetSetting(const wchar_t* name, const wchar_t* value)
{
    SetEnvironmentVariableW(name, value);
}

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

void SocketPair::SetBlocking(bool blocking)
{
    u_long nonBlocking = blocking ? 0 : 1;
    ioctlsocket(client, FIONBIO, &nonBlocking);
    ioctlsocket(server, FIONBIO, &nonBlocking);
}

bool Handshake(SocketPair& sockets, HSSL& client, HSSL& server)
{
    std::thread acceptor([&] { server = OPENSSL_accept(sockets.server); });
    client = OPENSSL_connect(sockets.client);
    acceptor.join();
    return client != 0 && server != 0;
}

TlsPair::TlsPair(bool blocking)
{
    sockets.SetBlocking(blocking);
    Handshake(sockets, client, server);
}

TlsPair::~TlsPair()
{
    if (client)
        OPENSSL_shutdown(client);
    if (server)
        OPENSSL_shutdown(server);
}

bool WaitSocket(SOCKET s, bool forRead)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(s, &set);
    timeval wait = {10, 0};
    return select(0, forRead ? &set : nullptr, forRead ? nullptr : &set, nullptr, &wait) == 1;
}

::testing::AssertionResult WriteAll(HSSL h, SOCKET s, const std::vector<char>& data)
{
    size_t done = 0;
    while (done < data.size()) {
        int n = OPENSSL_write(h, data.data() + done, (int)(data.size() - done));
        int error = WSAGetLastError();
        if (n > 0) {
            if (error != 0)
                return ::testing::AssertionFailure() << "a write of " << n << " bytes left last error " << error;
            done += n;
        } else if (error != WSAEWOULDBLOCK) {
            return ::testing::AssertionFailure() << "write failed after " << done << " bytes: " << n << ", error " << error;
        } else if (!WaitSocket(s, false)) {
            return ::testing::AssertionFailure() << "the socket never became writable after " << done << " bytes";
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult ReadAll(HSSL h, SOCKET s, std::vector<char>& data, size_t size)
{
    data.assign(size, 0);
    size_t done = 0;
    while (done < size) {
        int n = OPENSSL_read(h, data.data() + done, (int)(size - done));
        int error = WSAGetLastError();
        if (n > 0)
            done += n;
        else if (error != WSAEWOULDBLOCK)
            return ::testing::AssertionFailure() << "read failed after " << done << " bytes: " << n << ", error " << error;
        else if (!WaitSocket(s, true))
            return ::testing::AssertionFailure() << "no data arrived after " << done << " of " << size << " bytes";
    }
    return ::testing::AssertionSuccess();
}

std::vector<char> Pattern(size_t size, unsigned seed) { return PatternBytes<std::vector<char>>(size, seed); }

void SealkitTest::SetUp()
{
    UseTestCertificates();
    SetSetting(L"SEALKIT_HANDSHAKE_TIMEOUT_MS", nullptr);
}

void SealkitTest::TearDown()
{
    Stop();
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
