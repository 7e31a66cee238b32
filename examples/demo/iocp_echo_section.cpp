// An echo server and its clients, both on the completion-port stack: the
// server listens with a pool of accepts and sends back what it receives;
// each client sends a message, waits for its echo, and sends the next one.
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <map>
#include <mutex>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "demo_section.h"
#include "echo_server.h"
#include "factory/overlapped_socket_factory.h"

namespace {

const int kClients = 50;
const int kMessagesPerClient = 100;
const int kMessageSize = 1024;

typedef std::shared_ptr<COverlappedSocket> SocketPtr;

// Client side: one message in flight per connection; counts whole echoes.
class EchoClient : public ISocketNotifyObject {
public:
    EchoClient() : m_message(kMessageSize, 'w'), m_done(CreateEventW(NULL, TRUE, FALSE, NULL)) {}
    ~EchoClient() override { CloseHandle(m_done); }

    void OnConnect(int nErrorCode, SocketPtr s) override
    {
        if (nErrorCode != 0) {
            failures++;
            Finish();
            return;
        }
        s->Send(m_message.data(), kMessageSize, 0);
    }
    void OnClose(int, SocketPtr) override {}
    void OnReceive(int, const void*, int nLength, SocketPtr s) override
    {
        bytes += 2LL * nLength;   // it went out and came back
        std::lock_guard<std::mutex> lock(m_mutex);
        long long& received = m_received[s.get()];
        long sentBefore = static_cast<long>(received / kMessageSize);
        received += nLength;
        long sentNow = static_cast<long>(received / kMessageSize);
        for (long i = sentBefore; i < sentNow && sentNow < kMessagesPerClient; ++i)
            s->Send(m_message.data(), kMessageSize, 0);
        if (sentNow == kMessagesPerClient && sentBefore < sentNow && ++m_finished == kClients)
            Finish();
    }
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override { deleted++; }

    bool Wait(DWORD ms) { return WaitForSingleObject(m_done, ms) == WAIT_OBJECT_0; }

    std::atomic<long long> bytes{0};
    std::atomic<long> failures{0}, deleted{0};

private:
    void Finish() { SetEvent(m_done); }

    std::string m_message;
    HANDLE m_done;
    std::mutex m_mutex;
    std::map<const COverlappedSocket*, long long> m_received;
    int m_finished = 0;
};

}  // namespace

DemoRow CompletionPortEchoSection()
{
    DemoRow row;
    row.name = "completion-port echo";
    std::printf("== Echo server and %d clients on COverlappedSocketFactory\n", kClients);
    auto factory = COverlappedSocketFactory::CreateObject(COverlappedSocketFactory::KIND_PLAIN, 4);
    if (!factory) {
        row.note = "CreateObject failed";
        return row;
    }
    auto server = std::make_shared<EchoServerNotify>();
    auto client = std::make_shared<EchoClient>();
    SocketPtr listen = factory->CreateSocket(server, 0, L"127.0.0.1");
    if (!listen || !listen->Listen(SOMAXCONN)) {
        row.note = "listen failed";
        factory->Destory();
        return row;
    }
    factory->CreateSocket(server, listen, 16);
    unsigned int port = ListenPort(listen);
    std::printf("  %-28s 127.0.0.1:%u, 16 accepts posted\n", "listening on", port);
    ULONGLONG t0 = GetTickCount64();
    for (int i = 0; i < kClients; ++i) {
        SocketPtr c = factory->CreateSocket(client, 0, L"127.0.0.1");
        if (c)
            c->Connect(L"127.0.0.1", port);
    }
    bool finished = client->Wait(60000);
    row.seconds = (GetTickCount64() - t0) / 1000.0;
    row.connections = kClients;
    row.bytes = client->bytes.load();
    row.messages = static_cast<long>(row.bytes / 2 / kMessageSize);
    listen.reset();
    factory->Destory();
    row.ok = finished && client->failures == 0 && row.messages == kClients * kMessagesPerClient &&
             client->deleted == kClients;
    std::printf("  %-28s %ld of %d, %ld sockets deleted after Destory\n", "round trips", row.messages,
                kClients * kMessagesPerClient, client->deleted.load());
    row.note = std::to_string(kMessageSize) + "-byte messages, one in flight per connection";
    return row;
}
