// Opening: option strings, listening, connecting, accepting, and the ways a
// connect ends without a connection.
#include "comm_harness.h"

#include <stdexcept>

namespace {

class OpenTest : public WiCommTest {};

TEST_F(OpenTest, OptionStringsThatFailMakeNoObject)
{
    const char* bad[] = {"S:0", "S:abc", "C:1,2", "X:1,2.3.4.5,6", "C:0,localhost,80", "C:0,255.255.255.255,80",
                         "C:0,127.0.0.1,0", "S8000", "",
                         "C:0,1234567890123456789012345678901234567890,80",   // 40 characters
                         "C:0,::1::2,80", "C:0,fe80::zz,80", "C:0,[::1],80", "S:5000,0,[::1", "S:5000,0,::1::2"};
    for (const char* option : bad) {
        CommPtr sp = Make(option, &srv);
        EXPECT_FALSE(sp) << "option \"" << option << "\"";
    }
    CommPtr sp;
    OnWindow([&] { sp = CWiComm::NewObject(CWiComm::CLASSID_WITCP, nullptr, &srv, -1); });
    EXPECT_FALSE(sp) << "null option";
    for (unsigned id : {0u, 1u, 3u, 7u}) {
        OnWindow([&] { sp = CWiComm::NewObject(id, ("S:" + std::to_string(FreeLoopbackPort())).c_str(), &srv, -1); });
        EXPECT_FALSE(sp) << "class number " << id;
    }
    EXPECT_TRUE(srv.Events().empty()) << "a failed open notifies nothing";
    EXPECT_EQ(0, SinkWindowsOfThisProcess()) << "failed objects keep no window";
}

TEST_F(OpenTest, ModeTheObjectIsNotBuiltForFailsTheOpen)
{
    unsigned short port = 0;
    SOCKET raw = ListenLoopback(port);
    struct {
        std::string option;
        int mode;
        const wchar_t* text;
    } cases[] = {{"C:0,127.0.0.1," + std::to_string(port), 1, L"OpenSSL_connect failed\n"},
                 {"S:" + std::to_string(FreeLoopbackPort()), 0, L"OPENSSL_accept return null\n"}};
    for (auto& c : cases) {
        EXPECT_FALSE(Make(c.option, &srv, c.mode)) << c.option << " in mode " << c.mode;
        EXPECT_TRUE(m_debug.Contains(c.text)) << c.option;
    }
    EXPECT_TRUE(srv.Events().empty()) << "a failed open notifies nothing";
    closesocket(raw);
}

TEST_F(OpenTest, ListenFormsAndTheirText)
{
    unsigned short port = FreeLoopbackPort();
    CommPtr a = Make("  s:" + std::to_string(port), &srv);
    ASSERT_TRUE(a) << "leading blanks and lower case";
    EXPECT_EQ("S:" + std::to_string(port), Narrow(a->GetOpenOption()));
    EXPECT_EQ(1, a->IsOpen());
    EXPECT_EQ(std::vector<std::string>{"open"}, srv.Kinds(a.get())) << "OnOpen comes within NewObject";
    EXPECT_EQ(CWiComm::CLASSID_WITCP, a->GetClassID());
    EXPECT_TRUE(a->IsKindOf(RUNTIME_CLASS(CWiSocket)));
    EXPECT_STREQ("CWiTcp", a->GetRuntimeClass()->m_lpszClassName);
    int local = 0;
    EXPECT_EQ(1, CWiComm::IsValidObject(a.get()));
    EXPECT_EQ(0, CWiComm::IsValidObject(nullptr));
    EXPECT_EQ(0, CWiComm::IsValidObject(reinterpret_cast<CWiComm*>(&local)));
    EXPECT_EQ(0, a->SetTimeouts(100, 100, 100, 0)) << "a listener has no time-outs";
    EXPECT_EQ(0, a->Write("x", 1)) << "a listener takes no data";
    EXPECT_EQ(0, a->SetCommOpt("anything"));
    // The application's exception out of OnOpen unwinds through NewObject and
    // is caught by type.
    Recorder& thrower = Rec();
    thrower.onOpen = [](CommPtr) { throw std::runtime_error("from OnOpen"); };
    std::string caught;
    OnWindow([&] {
        try {
            CWiComm::NewObject(CWiComm::CLASSID_WITCP, ("S:" + std::to_string(FreeLoopbackPort())).c_str(), &thrower, -1);
        } catch (const std::runtime_error& e) {
            caught = e.what();
        }
    });
    EXPECT_EQ("from OnOpen", caught);

    unsigned short port2 = FreeLoopbackPort();
    CommPtr b = Make("Server:" + std::to_string(port2) + ",1", &srv);
    ASSERT_TRUE(b);
    int reuse = 0, len = sizeof(reuse);
    getsockopt(TcpPeek::Socket(b), SOL_SOCKET, SO_REUSEADDR, (char*)&reuse, &len);
    EXPECT_EQ(1, reuse);
    // The same port again without reuse can't be bound.
    CommPtr c = Make("S:" + std::to_string(port2), &srv);
    EXPECT_FALSE(c);
    EXPECT_EQ((long)htons(port2), static_cast<CWiSocket*>(b.get())->GetLocalPort())
        << "GetLocalPort gives the port as the address record holds it";
}

// Connect and accept, and the texts of both ends: an IPv4 listener (its
// client in the long form, with a port cut to 16 bits), and a listener on
// "::" (named in its option) that takes IPv6 and IPv4 clients, plain and
// TLS. Notifications run on the window thread.
TEST_F(OpenTest, ConnectAcceptAndTheirTextsOnBothFamilies)
{
    struct Case {
        const char* listenOn;      // the listener's address option
        int serverMode, clientMode;
        const char* peer;          // what the client connects to
        const char* seenByServer;  // the client's address in the accepted object's text
    } cases[] = {{"", -1, -1, "127.0.0.1", "127.0.0.1"},
                 {",0,::", -1, -1, "::1", "::1"},
                 {",0,::", -1, -1, "127.0.0.1", "::ffff:127.0.0.1"},
                 {",0,::", 1, 0, "::1", "::1"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.listenOn) + " " + c.peer + (c.clientMode == 0 ? " TLS" : " plain"));
        Recorder& srv = Rec();
        Recorder& cli = Rec();
        const bool v4 = c.listenOn[0] == 0;
        unsigned short port = FreeLoopbackPort();
        const std::string listen = "S:" + std::to_string(port) + c.listenOn;
        CommPtr listener = Make(listen, &srv, c.serverMode);
        ASSERT_TRUE(listener);
        EXPECT_EQ(listen, Narrow(listener->GetOpenOption()));
        CommPtr client = Make((v4 ? "connect:0," : "C:0,") + std::string(c.peer) + "," +
                                  std::to_string(v4 ? 65536 + port : port),
                              &cli, c.clientMode, c.clientMode == 0);
        ASSERT_TRUE(client);
        ASSERT_TRUE(cli.WaitFor([&] { return cli.Count("open") == 1; }, "client OnOpen"));
        ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("open") == 2; }, "OnOpen of the accepted object"));
        CommPtr accepted = srv.LastOpened();
        EXPECT_EQ(1, client->IsOpen());
        EXPECT_EQ(1, accepted->IsOpen());
        CWiSocket* pAccepted = static_cast<CWiSocket*>(accepted.get());
        unsigned clientPort = ntohs((u_short)static_cast<CWiSocket*>(client.get())->GetLocalPort());
        EXPECT_EQ("C:" + std::to_string(clientPort) + "," + c.peer + "," + std::to_string(port),
                  Narrow(client->GetOpenOption()));
        EXPECT_EQ("C:" + std::to_string(port) + "," + c.seenByServer + "," + std::to_string(clientPort),
                  Narrow(accepted->GetOpenOption()));
        CWiInetAddr peer;
        ASSERT_EQ(1, pAccepted->GetPeerAddr(peer));
        EXPECT_EQ(v4 ? AF_INET : AF_INET6, peer.GetFamily());
        EXPECT_EQ(clientPort, peer.GetPort());
        if (v4) {
            EXPECT_EQ((long)htons((u_short)clientPort), pAccepted->GetPeerPort());
            CWiSockAddr peer4;
            ASSERT_EQ(1, pAccepted->GetPeerAddr(peer4));
            EXPECT_EQ(htons((u_short)clientPort), peer4.sin_port);
        }
        std::vector<char> data = Pattern(9000, 3);
        ASSERT_EQ(1, client->Write(data.data(), (unsigned long)data.size()));
        ASSERT_TRUE(srv.WaitFor([&] { return srv.Data(accepted.get()).size() == data.size(); }, "the data"));
        EXPECT_TRUE(srv.Data(accepted.get()) == std::string(data.begin(), data.end()));
        for (const CommEvent& e : srv.Events())
            EXPECT_EQ(m_window->ThreadId(), e.nThread) << "notifications run on the window thread";
        srv.Forget();
    }
}

// A connect that ends without a connection: refused (FD_CONNECT with the
// error) or timed out (set from this thread, the timer still runs on the
// window thread) gives OnError(OPEN), then OnClose; closed by the
// application, OnClose alone. Then the object is dead.
TEST_F(OpenTest, ConnectRefusedTimedOutOrClosedEndsWithOnClose)
{
    RefusingPort nobody;
    StalledListener stalled;
    const std::vector<std::string> want[] = {{"error:1:10061", "close"}, {"error:1:-1", "close"}, {"close"}};
    for (int how = 0; how < 3; ++how) {
        Recorder& rec = Rec();
        m_port = how == 0 ? nobody.port : stalled.port;
        CommPtr sp = Connect(&rec);
        ASSERT_TRUE(sp) << "the end of a connect comes later";
        EXPECT_EQ(0, sp->Write("x", 1)) << "Write during a connect";
        if (how == 1) {
            EXPECT_EQ(1, sp->SetTimeouts(100, 300, 200, 0));
            EXPECT_EQ(1, sp->SetTimeouts(50, 50, 50, 0)) << "a second call during the connect";
        }
        if (how == 2)
            OnWindow([&] { sp->Close(); });
        ASSERT_TRUE(rec.WaitFor([&] { return rec.Count("close") == 1; }, "OnClose after the connect ended"));
        EXPECT_EQ(want[how], rec.Kinds());
        OnWindow([] {});   // the teardown after OnClose has finished
        EXPECT_EQ(0, CWiComm::IsValidObject(sp.get()));
        EXPECT_EQ(INVALID_SOCKET, TcpPeek::Socket(sp));
    }
}

}  // namespace
