// A factory with two workers, notify objects for the server and the client
// side, and the leak checks that wrap every scenario: after Destory and the
// last reference, every socket that was told anything got exactly one
// OnDelete, last, and the module heap and the handle count are back.
#ifndef WISOCK_TESTS_OVERLAPPED_STACK_FIXTURE_H
#define WISOCK_TESTS_OVERLAPPED_STACK_FIXTURE_H

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "recording_notify.h"
#include "support/debug_capture.h"
#include "support/leak.h"
#include "support/net.h"
#include "support/test_pki.h"

// For a hook: another thread's call into the socket gets through while the
// notification runs (no lock of the socket is held around notifications).
inline ::testing::AssertionResult OtherThreadGetsThrough(const SocketPtr& s)
{
    auto done = std::make_shared<TestEvent>();
    std::thread other([s, done] {
        s->GetWaitSendListPackSize();   // takes the socket's lock
        done->Set();
    });
    auto result = done->Wait("another thread's call on the socket while a notification of it runs",
                             std::chrono::seconds(5));
    if (result)
        other.join();
    else
        other.detach();   // it waits for this notification to return
    return result;
}

// Protected fields of a socket, for what the public interface can't show.
struct SocketPeek : COverlappedSocket {
    static DATE CreateTime(const COverlappedSocket* p) { return p->*(&SocketPeek::m_dtCreateTime); }
    static DATE ConnectTime(const COverlappedSocket* p) { return p->*(&SocketPeek::m_dtConnectTime); }
    static SOCKET Handle(const COverlappedSocket* p) { return p->*(&SocketPeek::m_hSocket); }
};

class StackTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        WarmUpWinsock();
        if (kind == 1) {
            UseTestCertificates();
            WarmUpTls();
        }
        baseline.reset(new LeakBaseline);
        factory = COverlappedSocketFactory::CreateObject(kind, workers);
        ASSERT_TRUE(factory) << "CreateObject(" << kind << ", " << workers << ") failed";
        server = std::make_shared<RecordingNotify>();
        client = std::make_shared<RecordingNotify>();
    }

    void TearDown() override
    {
        const auto start = std::chrono::steady_clock::now();
        if (factory)
            factory->Destory();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5))
            << "Destory waited out its drain: an operation's end went uncounted";
        // Destory lets go of every socket: they end while the factory object lives on.
        ExpectEveryOnDeleteOnceAndLast(*server, "server");
        ExpectEveryOnDeleteOnceAndLast(*client, "client");
        factory.reset();
        EXPECT_TRUE(baseline->Check(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    }

    static void ExpectEveryOnDeleteOnceAndLast(const RecordingNotify& notify, const char* side)
    {
        auto allEnded = [&] {
            for (const auto& e : notify.Entries())
                if (e.log.empty() || e.log.back() != "OnDelete")
                    return false;
            return true;
        };
        EXPECT_TRUE(notify.WaitFor(allEnded, std::string(side) + ": every socket ends with OnDelete"));
        for (const auto& e : notify.Entries()) {
            const Log& l = e.log;
            EXPECT_EQ(1, std::count(l.begin(), l.end(), std::string("OnDelete"))) << side << ": one OnDelete";
            EXPECT_GE(1, std::count_if(l.begin(), l.end(), [](const std::string& s) { return s.rfind("OnClose", 0) == 0; }))
                << side << ": at most one OnClose";
            EXPECT_GE(l.size(), 2u) << side << ": OnDelete without any other notification";
        }
    }

    // Winsock's first use opens handles that stay for the process: open them before the baseline.
    static void WarmUpWinsock()
    {
        static WinsockScope keep;
        static bool warm = false;
        if (!warm) {
            unsigned short port = 0;
            SOCKET l = ListenLoopback(port);
            SOCKET c = ConnectLoopback(port);
            closesocket(c);
            closesocket(l);
            warm = true;
        }
    }

    // One life of a TLS factory with a connection: what the process keeps for
    // good (the TLS library's state, thread-pool threads) exists before the baseline.
    void WarmUpTls()
    {
        static bool warm = false;
        if (warm)
            return;
        warm = true;
        factory = COverlappedSocketFactory::CreateObject(1, 2);
        unsigned short port = 0;
        auto notify = std::make_shared<RecordingNotify>();
        SocketPtr listen = Listen(port, 1, notify);
        ConnectTo(port, notify);
        EXPECT_TRUE(notify->connects.WaitAtLeast(2, "the warm-up's TLS handshake"));
        factory->Destory();
    }

    // A listen socket on 127.0.0.1 with a pool of accepts. It binds port 0 and
    // reads the port back, so that no port-owner look-up (slow under Wine
    // when the machine has many sockets) is made for it.
    SocketPtr Listen(unsigned short& port, int pool = 5, std::shared_ptr<ISocketNotifyObject> notify = nullptr,
                     const wchar_t* bindTo = L"127.0.0.1", FactoryPtr on = nullptr)
    {
        if (!notify)
            notify = server;
        if (!on)
            on = factory;
        port = 0;
        SocketPtr listen = on->CreateSocket(notify, 0, bindTo);
        EXPECT_TRUE(listen) << "bound socket for the listener";
        if (!listen)
            return listen;
        EXPECT_EQ(1, listen->Listen(pool));
        CString address;
        unsigned int bound = 0;
        EXPECT_EQ(1, listen->GetSockName(address, bound));
        port = static_cast<unsigned short>(bound);
        auto accepts = on->CreateSocket(notify, listen, pool);
        EXPECT_EQ(static_cast<size_t>(pool), accepts.size());
        for (auto& a : accepts)
            EXPECT_TRUE(a) << "accepting socket";
        return listen;
    }

public:
    // A plain blocking peer whose receives give up after 10 s instead of hanging.
    static SOCKET Peer(unsigned short port)
    {
        SOCKET s = ConnectLoopback(port);
        DWORD timeout = 10000;
        if (s != INVALID_SOCKET)
            setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof(timeout));
        return s;
    }

protected:
    SocketPtr ConnectTo(unsigned short port, std::shared_ptr<RecordingNotify> notify = nullptr)
    {
        if (!notify)
            notify = client;
        SocketPtr s = factory->CreateSocket(notify, 0, L"127.0.0.1");
        EXPECT_TRUE(s) << "bound socket for the client";
        if (s) {
            EXPECT_EQ(1, s->Connect(L"127.0.0.1", port)) << "Connect error " << COverlappedSocket::GetLastError();
        }
        return s;
    }

    // The n-th socket (in order of first notification) whose log begins with OnConnect(0).
    static const COverlappedSocket* Accepted(const RecordingNotify& notify, size_t n = 0)
    {
        for (const auto& e : notify.Entries())
            if (!e.log.empty() && e.log.front() == "OnConnect(0)" && n-- == 0)
                return e.socket;
        return nullptr;
    }

    ::testing::AssertionResult LogBecomes(const RecordingNotify& notify, const COverlappedSocket* p, const Log& want)
    {
        if (notify.WaitFor([&] { return notify.Log(p) == want; }, "notification order"))
            return ::testing::AssertionSuccess();
        std::string got;
        for (auto& s : notify.Log(p))
            got += s + " ";
        std::string exp;
        for (auto& s : want)
            exp += s + " ";
        return ::testing::AssertionFailure() << "log is [" << got << "], want [" << exp << "]";
    }

    int kind = 0, workers = 2;   // of the factory; a fixture may change them before SetUp
    std::unique_ptr<LeakBaseline> baseline;
    FactoryPtr factory;
    std::shared_ptr<RecordingNotify> server, client;
};

// A scenario on a plain and on a TLS factory.
class BothKinds : public StackTest, public ::testing::WithParamInterface<int> {
protected:
    BothKinds() { kind = GetParam(); }
};

#endif
