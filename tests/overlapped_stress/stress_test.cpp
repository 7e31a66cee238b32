// Many connections at once: each client sends one framed message, the server
// echoes it and closes as soon as the echo is out, the client closes as soon
// as it has the echo. Both ends close at about the same moment, racing the
// peer's close. No byte or notification may be lost or doubled.
#include <cstring>
#include <map>
#include <mutex>

#include <gtest/gtest.h>

#include "../overlapped/recording_notify.h"
#include "support/leak.h"
#include "support/net.h"

namespace {

const int kConnections = 1000;

std::string Message(int index)
{
    uint32_t length = 1 + static_cast<uint32_t>(index * 7919) % 6000;
    std::string body = Pattern(length, static_cast<unsigned>(index) + 7);
    std::string framed(4, '\0');
    std::memcpy(&framed[0], &length, 4);
    return framed + body;
}

class StressSide : public ISocketNotifyObject {
public:
    explicit StressSide(bool server) : m_server(server) {}

    void Expect(const COverlappedSocket* p, std::string message)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state[p].expected = std::move(message);
    }
    void OnConnect(int nErrorCode, SocketPtr s) override
    {
        if (nErrorCode != 0) {
            failures.Add();
            return;
        }
        connects.Add();
        if (!m_server) {
            std::string message;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                message = m_state[s.get()].expected;
            }
            s->Send(message.data(), static_cast<int>(message.size()), 0);
        }
    }
    void OnClose(int, SocketPtr s) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (++m_state[s.get()].closes > 1)
            duplicates.Add();
        closes.Add();
    }
    void OnReceive(int nErrorCode, const void* pData, int nLength, SocketPtr s) override
    {
        if (m_server)
            s->Send(pData, nLength, 0);
        bool done = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            State& st = m_state[s.get()];
            st.received.append(static_cast<const char*>(pData), static_cast<size_t>(nLength));
            if (m_server && st.expected.empty() && st.received.size() >= 4) {
                uint32_t length;
                std::memcpy(&length, st.received.data(), 4);
                st.expected.assign(4 + length, '?');   // only its size matters here
            }
            if (!st.expected.empty() && st.received.size() == st.expected.size()) {
                if (!m_server && st.received != st.expected)
                    corrupted.Add();
                done = !m_server;
                if (!m_server)
                    complete.Add();
            }
            if (!st.expected.empty() && st.received.size() > st.expected.size())
                corrupted.Add();
        }
        if (done)
            s->Close();   // the client has its echo
    }
    void OnSend(int, int nLength, SocketPtr s) override
    {
        bool done = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            State& st = m_state[s.get()];
            st.sent += nLength;
            done = m_server && !st.expected.empty() && st.sent == static_cast<long long>(st.expected.size());
            if (done)
                complete.Add();
        }
        if (done)
            s->Close();   // the server's echo is out
    }
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket* p) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_state.find(p);
        if (it != m_state.end() && it->second.closes != 1)
            unclosed.Add();
        m_state.erase(p);   // the address may come back for a new object
        deletes.Add();
    }

    EventCounter connects, closes, deletes, complete, failures, duplicates, corrupted, unclosed;

private:
    struct State {
        std::string expected, received;
        long long sent = 0;
        int closes = 0;
    };
    bool m_server;
    std::mutex m_mutex;
    std::map<const COverlappedSocket*, State> m_state;
};

}  // namespace

TEST(OverlappedStress, ThousandConnectionsEchoAndCloseFromBothSides)
{
    WinsockScope winsock;
    {   // Winsock's first use opens handles for the process: before the baseline
        unsigned short p = 0;
        SOCKET l = ListenLoopback(p);
        closesocket(l);
    }
    LeakBaseline baseline;
    ULONGLONG t0 = GetTickCount64();
    FactoryPtr factory = COverlappedSocketFactory::CreateObject(0, 4);
    ASSERT_TRUE(factory);
    auto server = std::make_shared<StressSide>(true);
    auto client = std::make_shared<StressSide>(false);
    SocketPtr listen = factory->CreateSocket(server, 0, L"127.0.0.1");
    ASSERT_TRUE(listen);
    ASSERT_EQ(1, listen->Listen(SOMAXCONN));
    CString address;
    unsigned int port = 0;
    ASSERT_EQ(1, listen->GetSockName(address, port));
    const int pool = 64;
    ASSERT_EQ(static_cast<size_t>(pool), factory->CreateSocket(server, listen, pool).size());

    int made = 0;
    for (int i = 0; i < kConnections; ++i) {
        SocketPtr s = factory->CreateSocket(client, 0, L"127.0.0.1");
        ASSERT_TRUE(s) << "client socket " << i;
        client->Expect(s.get(), Message(i));
        ASSERT_EQ(1, s->Connect(L"127.0.0.1", port));
        ++made;
    }
    EXPECT_TRUE(client->complete.WaitAtLeast(kConnections, "every client has its echo", std::chrono::seconds(90)));
    // (A server socket may miss its last OnSend: the client's close can end it first.)
    EXPECT_TRUE(client->deletes.WaitAtLeast(kConnections, "every client socket destroyed", std::chrono::seconds(30)));
    EXPECT_TRUE(server->deletes.WaitAtLeast(kConnections, "every accepted socket destroyed", std::chrono::seconds(30)));
    ULONGLONG elapsed = GetTickCount64() - t0;
    listen.reset();
    factory->Destory();
    factory.reset();

    EXPECT_EQ(kConnections, client->connects.Get());
    EXPECT_EQ(kConnections, server->connects.Get());
    EXPECT_EQ(0, client->failures.Get() + server->failures.Get());
    EXPECT_EQ(0, client->corrupted.Get() + server->corrupted.Get()) << "lost, doubled or changed bytes";
    EXPECT_EQ(0, client->duplicates.Get() + server->duplicates.Get()) << "a second OnClose";
    EXPECT_EQ(0, client->unclosed.Get() + server->unclosed.Get()) << "OnDelete without exactly one OnClose";
    EXPECT_EQ(kConnections, client->closes.Get());
    EXPECT_EQ(made, client->deletes.Get());
    // Accepted sockets, the accepts still outstanding at Destory, and the listen socket.
    EXPECT_EQ(kConnections + pool + 1, server->deletes.Get());
    EXPECT_EQ(server->closes.Get(), server->deletes.Get());
    EXPECT_TRUE(baseline.Check("stress"));
    std::printf("  %d connections opened, echoed and closed in %llu ms\n", kConnections, elapsed);
}
