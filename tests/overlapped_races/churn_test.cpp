// Connections ended every way at once: the peer's graceful close, the peer's
// reset, the application's Close inside each notification (every eleventh
// connection is closed inside OnConnect, whatever its peer does) and from
// another thread (racing the peer's reset), and receive time-outs. Each socket must
// get one OnClose and one OnDelete before Destory, and each server socket
// must receive exactly the bytes that its own peer sent, no more, no less.
#include <atomic>
#include <cstdlib>
#include <cstring>
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

// What a server socket has read of its peer's message: the ending and the
// length once the header is in; false if the bytes are not that message
// (data of another connection, or more than it).
bool ReadSoFar(const std::string& got, Ending& ending, size_t& length)
{
    ending = ENDINGS;
    length = 0;
    if (got.size() < 5)
        return true;
    uint32_t n;
    std::memcpy(&n, &got[1], 4);
    ending = static_cast<Ending>(got[0]);
    length = n;
    if (ending >= ENDINGS || n == 0 || n > 6000 || got.size() > 5 + length)
        return false;
    return got.compare(5, got.size() - 5, Pattern(length, n), 0, got.size() - 5) == 0;
}

// Each socket is driven by the ending its peer's message names.
void DriveByMessage(RecordingNotify& server, AppThread& closer)
{
    auto connects = std::make_shared<std::atomic<long>>(0);
    server.onConnect = [connects](int nError, SocketPtr s) {
        if (nError != 0)
            return;
        s->SetReceiveTimeout(1500);   // idle peers are closed by OnReceiveTimeout
        if (++*connects % 11 == 5)
            s->Close();   // whatever its peer does
    };
    server.onReceive = [&server, &closer](const void* pData, int nLength, SocketPtr s) {
        Ending ending;
        size_t length;
        const std::string got = server.Received(s.get());
        if (!ReadSoFar(got, ending, length))
            return;
        const bool complete = length != 0 && got.size() == 5 + length;
        if (ending != CLOSE_IN_ONRECEIVE && ending != CLOSE_FROM_THREAD)
            s->Send(pData, nLength, 0);
        if (complete && ending == CLOSE_IN_ONRECEIVE)
            s->Close();
        if (complete && ending == CLOSE_FROM_THREAD)
            closer.Post([s] { s->Close(); });
    };
    server.onSend = [&server](int nError, int, SocketPtr s) {
        RecordingNotify::Entry e = server.Of(s.get());
        Ending ending;
        size_t length;
        ReadSoFar(e.received, ending, length);
        // A failed send ends the socket from inside OnSend.
        if (nError != 0 || (ending == CLOSE_IN_ONSEND && length != 0 && e.sent == (long long)(5 + length)))
            s->Close();
    };
    server.onTimeout = [](SocketPtr s) -> DWORD {
        s->Close();
        return 0;
    };
}

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
    AppThread closer;
    DriveByMessage(*server, closer);
    unsigned short port = 0;
    SocketPtr listen = Listen(port, 16);

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
    // Every connected socket has ended before Destory: the fixture then checks
    // one OnClose and one OnDelete, last, for each.
    EXPECT_TRUE(server->deletes.WaitAtLeast(total + 8, "OnDelete of every connected socket before Destory",
                                            std::chrono::seconds(20)));
    std::vector<RecordingNotify::Entry> ended;
    for (const auto& e : server->Entries())
        if (!e.log.empty() && e.log.front() == "OnConnect(0)")
            ended.push_back(e);
    EXPECT_EQ(size_t(total + 8), ended.size()) << "every client was accepted";
    EXPECT_EQ(0, clientFailures.load()) << "clients that got bytes they did not send";
    for (const auto& e : ended) {
        Ending ending;
        size_t length;
        EXPECT_EQ("OnDelete", e.log.back()) << "a connected socket still alive";
        EXPECT_TRUE(ReadSoFar(e.received, ending, length)) << "a server socket got bytes its peer did not send";
        auto close = std::find_if(e.log.begin(), e.log.end(), [](const std::string& l) { return l.rfind("OnClose", 0) == 0; });
        EXPECT_NE(e.log.end(), close) << "a connected socket ended without OnClose";
        EXPECT_EQ(e.log.end(), std::find(close, e.log.end(), "OnReceive")) << "OnReceive after OnClose";
    }
    server->onConnect = nullptr;   // the hooks hold this test's locals
    server->onReceive = nullptr;
    server->onSend = nullptr;
    server->onTimeout = nullptr;
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
