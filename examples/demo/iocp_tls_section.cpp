// A TLS echo server and its clients on the completion-port stack (factories
// of kind 1, COverlappedSSL sockets, Sealkit underneath). The server and the
// clients have a factory each: a handshake holds a worker thread of its
// factory until the peer answers, so one small factory doing both ends of
// many handshakes at once could have every worker waiting for a peer that
// needs a worker of the same factory.
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "demo_section.h"
#include "echo_server.h"
#include "factory/overlapped_socket_factory.h"

namespace {

const int kClients = 16;
const int kMessagesPerClient = 100;
const int kMessageSize = 1024;
const int kWorkersPerFactory = 4;

typedef std::shared_ptr<COverlappedSocket> SocketPtr;

// Client side: one message in flight per connection. A TLS socket hands over
// whatever it has decrypted in one OnReceive, so echoes are counted by bytes,
// and every byte is compared with what was sent.
class TlsEchoClient : public ISocketNotifyObject {
public:
    TlsEchoClient() : m_message(kMessageSize, '\0'), m_done(CreateEventW(NULL, TRUE, FALSE, NULL))
    {
        for (int i = 0; i < kMessageSize; ++i)
            m_message[static_cast<size_t>(i)] = static_cast<char>((i * 7 + 3) & 0xFF);
    }
    ~TlsEchoClient() override { CloseHandle(m_done); }

    void OnConnect(int nErrorCode, SocketPtr s) override
    {
        if (nErrorCode != 0) {
            Fail(s.get());
            return;
        }
        handshakes++;
        s->Send(m_message.data(), kMessageSize, 0);
    }
    // A failed handshake ends with OnClose(0) alone, without OnConnect.
    void OnClose(int, SocketPtr s) override { Fail(s.get()); }
    void OnReceive(int, const void* pData, int nLength, SocketPtr s) override
    {
        bytes += 2LL * nLength;   // it went out and came back
        std::lock_guard<std::mutex> lock(m_mutex);
        Progress& p = m_progress[s.get()];
        if (!SameAsSent(p.received, static_cast<const char*>(pData), nLength))
            mismatches++;
        long echoedBefore = static_cast<long>(p.received / kMessageSize);
        p.received += nLength;
        long echoedNow = static_cast<long>(p.received / kMessageSize);
        for (long i = echoedBefore; i < echoedNow && i + 1 < kMessagesPerClient; ++i)
            s->Send(m_message.data(), kMessageSize, 0);
        if (echoedNow >= kMessagesPerClient && !p.finished) {
            p.finished = true;
            CountFinishedLocked();
        }
    }
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override { deleted++; }

    // A connection that ended before its last echo counts as finished, and as a failure.
    void Fail(const COverlappedSocket* s)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Progress& p = m_progress[s];
        if (!p.finished) {
            p.finished = true;
            failures++;
            CountFinishedLocked();
        }
    }
    // A client whose socket or Connect failed at once.
    void NeverStarted()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        failures++;
        CountFinishedLocked();
    }

    bool Wait(DWORD ms) { return WaitForSingleObject(m_done, ms) == WAIT_OBJECT_0; }

    std::atomic<long long> bytes{0};
    std::atomic<long> failures{0}, deleted{0}, handshakes{0}, mismatches{0};

private:
    struct Progress {
        long long received = 0;
        bool finished = false;
    };

    // The echo of a stream of identical messages: byte n is message byte n % size.
    bool SameAsSent(long long offset, const char* pData, int nLength) const
    {
        for (int i = 0; i < nLength; ++i)
            if (pData[i] != m_message[static_cast<size_t>((offset + i) % kMessageSize)])
                return false;
        return true;
    }
    void CountFinishedLocked()
    {
        if (++m_finished == kClients)
            SetEvent(m_done);
    }

    std::string m_message;
    HANDLE m_done;
    std::mutex m_mutex;
    std::map<const COverlappedSocket*, Progress> m_progress;
    int m_finished = 0;
};

// The server: a kind-1 factory, a listener on 127.0.0.1 (any port) and its accepts.
SocketPtr StartServer(const std::shared_ptr<COverlappedSocketFactory>& factory,
                      const std::shared_ptr<EchoServerNotify>& server)
{
    SocketPtr listen = factory->CreateSocket(server, 0, L"127.0.0.1");
    if (!listen || !listen->Listen(SOMAXCONN))
        return SocketPtr();
    factory->CreateSocket(server, listen, kClients);
    return listen;
}

}  // namespace

DemoRow CompletionPortTlsEchoSection()
{
    DemoRow row;
    row.name = "completion-port TLS echo";
    std::printf("== TLS echo server and %d TLS clients on COverlappedSocketFactory kind 1\n", kClients);
    // The server shows SEALKIT_CERT and the clients check it against
    // SEALKIT_CA and 127.0.0.1: scripts/demo sets both to a demo CA's files.
    auto serverFactory = COverlappedSocketFactory::CreateObject(COverlappedSocketFactory::KIND_SSL, kWorkersPerFactory);
    auto clientFactory = COverlappedSocketFactory::CreateObject(COverlappedSocketFactory::KIND_SSL, kWorkersPerFactory);
    auto server = std::make_shared<EchoServerNotify>();
    auto client = std::make_shared<TlsEchoClient>();
    SocketPtr listen = serverFactory && clientFactory ? StartServer(serverFactory, server) : SocketPtr();
    if (!listen) {
        row.note = serverFactory && clientFactory ? "listen failed" : "CreateObject(1, n) failed";
        if (serverFactory)
            serverFactory->Destory();
        if (clientFactory)
            clientFactory->Destory();
        return row;
    }
    unsigned int port = ListenPort(listen);
    std::printf("  %-28s 127.0.0.1:%u, %d accepts posted\n", "listening (TLS) on", port, kClients);
    ULONGLONG t0 = GetTickCount64();
    for (int i = 0; i < kClients; ++i) {
        SocketPtr c = clientFactory->CreateSocket(client, 0, L"127.0.0.1");
        if (!c || !c->Connect(L"127.0.0.1", port))
            client->NeverStarted();
    }
    bool finished = client->Wait(60000);
    row.seconds = (GetTickCount64() - t0) / 1000.0;
    row.connections = kClients;
    row.bytes = client->bytes.load();
    row.messages = static_cast<long>(row.bytes / 2 / kMessageSize);
    clientFactory->Destory();
    listen.reset();
    serverFactory->Destory();
    row.ok = finished && client->failures == 0 && client->mismatches == 0 && client->handshakes == kClients &&
             row.messages == kClients * kMessagesPerClient && client->deleted == kClients;
    std::printf("  %-28s %ld of %d\n", "handshakes", client->handshakes.load(), kClients);
    std::printf("  %-28s %ld of %d, %ld with bytes that differ\n", "round trips", row.messages,
                kClients * kMessagesPerClient, client->mismatches.load());
    std::printf("  %-28s %ld of %d\n", "client sockets deleted", client->deleted.load(), kClients);
    row.note = std::to_string(kMessageSize) + "-byte messages, one in flight per connection, " +
               std::to_string(kWorkersPerFactory) + " workers each for server and clients";
    return row;
}
