// Connections ended every way at once: the peer's graceful close, the peer's
// reset, the application's Close inside each notification (every eleventh
// connection is closed inside OnConnect, whatever its peer does) and from
// another thread (racing the peer's reset), and receive time-outs. Each socket must
// get one OnClose and one OnDelete before Destory, and each server socket
// must receive exactly the bytes that its own peer sent, no more, no less.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "../overlapped/stack_fixture.h"
#include "support/app_thread.h"
#include "support/wait.h"

namespace {

enum Ending {
    PEER_CLOSES,          // the client closes gracefully once it has the echo
    PEER_RESETS,          // the client resets the connection right after sending
    CLOSE_IN_ONRECEIVE,   // the server closes inside OnReceive when all has come
    CLOSE_FROM_THREAD,    // another application thread closes it, as the peer resets
    CLOSE_IN_ONSEND,      // the server closes inside OnSend once the echo is out
    ENDINGS
};

// A message: the ending, the length of the body, then the body.
std::string Message(int index, Ending ending)
{
    uint32_t length = 1 + static_cast<uint32_t>(index * 7919) % 6000;
    std::string message(5, '\0');
    message[0] = static_cast<char>(ending);
    std::memcpy(&message[1], &length, 4);
    return message + Pattern(length, length);
}

class ChurnServer : public ISocketNotifyObject {
public:
    EventCounter connects, deletesOfConnected, corrupted, doubleCloses, lateNotifications;
    std::function<void(SocketPtr)> closeFromThread;

    void OnConnect(int nErrorCode, SocketPtr s) override
    {
        if (nErrorCode != 0)
            return;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_state[s.get()].connected = true;
        }
        connects.Add();
        s->SetReceiveTimeout(1500);   // idle peers are closed by OnReceiveTimeout
        if (ClosesInOnConnect(s))
            s->Close();
    }
    void OnClose(int, SocketPtr s) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (++m_state[s.get()].closes > 1)
            doubleCloses.Add();
    }
    void OnReceive(int, const void* pData, int nLength, SocketPtr s) override
    {
        Ending ending;
        bool complete;
        if (!Take(s.get(), static_cast<const char*>(pData), nLength, ending, complete))
            return;
        if (ending != CLOSE_IN_ONRECEIVE && ending != CLOSE_FROM_THREAD)
            s->Send(pData, nLength, 0);
        if (complete && ending == CLOSE_IN_ONRECEIVE)
            s->Close();
        if (complete && ending == CLOSE_FROM_THREAD)
            closeFromThread(s);
    }
    void OnSend(int nErrorCode, int nLength, SocketPtr s) override
    {
        bool close = nErrorCode != 0;   // a failed send ends the socket from inside OnSend
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            State& st = m_state[s.get()];
            st.sent += nLength;
            close = close || (st.ending == CLOSE_IN_ONSEND && st.expected != 0 && st.sent == static_cast<long long>(st.expected));
        }
        if (close)
            s->Close();
    }
    DWORD OnReceiveTimeout(SocketPtr s) override
    {
        s->Close();
        return 0;
    }
    void OnDelete(COverlappedSocket* p) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_state.find(p);
        if (it == m_state.end())
            return;   // an accept that never got a connection
        bool connected = it->second.connected;
        if (it->second.closes != 1)
            doubleCloses.Add();
        m_state.erase(it);   // the address may come back for a new object
        if (connected)
            deletesOfConnected.Add();
    }

private:
    struct State {
        bool connected = false;
        int closes = 0;
        std::string received;
        size_t expected = 0;
        Ending ending = ENDINGS;
        long long sent = 0;
    };

    bool ClosesInOnConnect(const SocketPtr&) { return ++m_connectCount % 11 == 5; }
    std::atomic<long> m_connectCount{0};

    // Checks each byte against the message its own peer sends. False if the
    // bytes are not that message (data of another connection).
    bool Take(const COverlappedSocket* p, const char* data, int n, Ending& ending, bool& complete)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        State& st = m_state[p];
        if (st.closes != 0)
            lateNotifications.Add();
        st.received.append(data, static_cast<size_t>(n));
        complete = false;
        ending = st.ending;
        if (st.received.size() < 5)
            return true;
        uint32_t length;
        std::memcpy(&length, &st.received[1], 4);
        st.ending = static_cast<Ending>(st.received[0]);
        ending = st.ending;
        if (ending >= ENDINGS || length == 0 || length > 6000) {
            corrupted.Add();
            return false;
        }
        st.expected = 5 + length;
        std::string want = Pattern(length, length);
        size_t have = st.received.size() - 5;
        if (have > length || st.received.compare(5, have, want, 0, have) != 0) {
            corrupted.Add();
            return false;
        }
        complete = have == length;
        return true;
    }

    std::mutex m_mutex;
    std::map<const COverlappedSocket*, State> m_state;
};

// One client connection, ended as its message says. False if the client saw
// something no ending allows (no echo where one is due, wrong bytes).
bool RunClient(unsigned short port, int index, Ending ending)
{
    SOCKET s = StackTest::Peer(port);
    if (s == INVALID_SOCKET)
        return false;
    std::string message = Message(index, ending);
    if (!SendAll(s, message.data(), message.size())) {
        closesocket(s);
        return false;
    }
    bool ok = true;
    if (ending == PEER_CLOSES || ending == CLOSE_IN_ONSEND) {
        // The whole echo, or a part of it if the server closed in OnConnect.
        std::string echo(message.size(), '\0');
        size_t got = 0;
        int n;
        while (got < echo.size() && (n = recv(s, &echo[got], static_cast<int>(echo.size() - got), 0)) > 0)
            got += static_cast<size_t>(n);
        ok = echo.compare(0, got, message, 0, got) == 0;
    }
    if (ending == PEER_RESETS || ending == CLOSE_FROM_THREAD) {
        linger reset = {1, 0};
        setsockopt(s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&reset), sizeof(reset));
    }
    closesocket(s);
    return ok;
}

int ChurnConnections()
{
    const char* count = std::getenv("WISOCK_CHURN_CONNECTIONS");
    return count != nullptr ? std::atoi(count) : 2000;
}

}  // namespace

TEST_F(StackTest, ChurnOfEveryEndingGivesOneOnCloseOneOnDeleteAndTheRightBytes)
{
    const int total = ChurnConnections();
    auto churn = std::make_shared<ChurnServer>();
    AppThread closer;
    churn->closeFromThread = [&](SocketPtr s) { closer.Post([s] { s->Close(); }); };
    unsigned short port = 0;
    SocketPtr listen = Listen(port, 16, churn);

    // Idle peers: the server's receive time-out closes them.
    std::vector<SOCKET> idle;
    for (int i = 0; i < 8; ++i)
        idle.push_back(StackTest::Peer(port));

    std::atomic<int> clientFailures(0);
    auto run = [&](int first) {
        for (int i = first; i < total; i += 2)
            if (!RunClient(port, i, static_cast<Ending>(i % ENDINGS)))
                ++clientFailures;
    };
    std::thread a(run, 0), b(run, 1);
    a.join();
    b.join();
    for (SOCKET s : idle) {
        char byte;
        EXPECT_GE(0, recv(s, &byte, 1, 0)) << "an idle peer was closed by the server's time-out";
        closesocket(s);
    }
    const long connected = churn->connects.Get();
    EXPECT_EQ(total + 8, connected) << "every client was accepted";
    EXPECT_TRUE(churn->deletesOfConnected.WaitAtLeast(connected, "OnDelete of every connected socket before Destory",
                                                      std::chrono::seconds(20)));
    EXPECT_EQ(0, clientFailures.load()) << "clients that got bytes they did not send";
    EXPECT_EQ(0, churn->corrupted.Get()) << "server sockets that got bytes their peer did not send";
    EXPECT_EQ(0, churn->doubleCloses.Get()) << "sockets without exactly one OnClose";
    EXPECT_EQ(0, churn->lateNotifications.Get()) << "OnReceive after OnClose";
    listen->Close();
    listen.reset();
}

TEST_F(StackTest, DestoryUnderFullEchoTrafficEndsEverySocketOnce)
{
    unsigned short port;
    server->echo = true;
    SocketPtr listen = Listen(port, 16);
    const int kPeers = 32;
    std::vector<SOCKET> peers;
    for (int i = 0; i < kPeers; ++i)
        peers.push_back(StackTest::Peer(port));
    ASSERT_TRUE(server->connects.WaitAtLeast(kPeers, "every peer accepted"));
    // Each peer keeps 4 KiB in flight both ways until the server goes away.
    std::atomic<bool> stop(false);
    TestEvent traffic;
    auto pump = [&](int first) {
        std::string block = Pattern(4096, 3), back(4096, '\0');
        while (!stop) {
            bool any = false;
            for (int i = first; i < kPeers; i += 2)
                if (peers[i] != INVALID_SOCKET) {
                    if (SendAll(peers[i], block.data(), block.size()) && RecvAll(peers[i], &back[0], back.size())) {
                        any = true;
                        continue;
                    }
                    closesocket(peers[i]);
                    peers[i] = INVALID_SOCKET;
                }
            if (!any)
                return;
            traffic.Set();
        }
    };
    std::thread a(pump, 0), b(pump, 1);
    ASSERT_TRUE(traffic.Wait("echo traffic on every peer"));
    ASSERT_TRUE(server->receives.WaitAtLeast(64 * 4096, "a quarter MiB echoed"));
    factory->Destory();
    EXPECT_TRUE(server->deletes.WaitAtLeast(kPeers + 1, "OnDelete of the listener and every connection"));
    stop = true;
    a.join();
    b.join();
    for (SOCKET s : peers)
        if (s != INVALID_SOCKET)
            closesocket(s);
    listen.reset();
}
