// Bind's port-owner rule and address forms; name resolution only in Connect.
#include "stack_fixture.h"

// A port with a listener is refused to Bind, whether another owner listens
// on 127.0.0.1 (127.0.0.2:port is free for bind itself: only the rule refuses
// it) or this process does. The look-up gives up (and bind goes ahead) when
// the TCP table changes between its two reads, which other test programs
// running at the same time can cause; so a bind that got through is undone
// and tried again.
TEST_F(StackTest, BindRefusesAPortThatHasAListener)
{
    unsigned short port = 0;
    SOCKET other = ListenLoopback(port);
    ASSERT_NE(INVALID_SOCKET, other);
    unsigned short ownPort;
    SocketPtr own = Listen(ownPort, 1);
    for (auto c : {std::make_pair(port, L"127.0.0.2"), std::make_pair(ownPort, static_cast<const wchar_t*>(nullptr))}) {
        bool refused = false;
        for (int attempt = 0; attempt < 5 && !refused; ++attempt) {
            SocketPtr s = factory->CreateSocket(client, c.first, c.second);
            refused = !s && COverlappedSocket::GetLastError() == WSAEADDRINUSE;
            if (s)
                s->Close();
        }
        EXPECT_TRUE(refused) << "Bind must refuse port " << c.first << ": it has a listener";
    }
    closesocket(other);
    SocketPtr s = factory->CreateSocket(client, port, L"127.0.0.2");
    EXPECT_TRUE(s) << "free again once the listener is gone, error " << COverlappedSocket::GetLastError();
}

// Bind takes numbers only; Connect resolves host names. A socket refused for
// want of a notify object leaves nothing behind (a TLS one has an event).
TEST_P(BothKinds, BindTakesNumbersAndConnectResolvesNames)
{
    for (const wchar_t* bad : {L"localhost", L"255.255.255.255"}) {
        EXPECT_FALSE(factory->CreateSocket(client, 0, bad));
        EXPECT_EQ(WSAEINVAL, COverlappedSocket::GetLastError());
    }
    EXPECT_FALSE(factory->CreateSocket(nullptr, 0, L"127.0.0.1")) << "no notify object, no socket";
    SocketPtr any = factory->CreateSocket(client, 0, nullptr);
    ASSERT_TRUE(any);
    sockaddr_in name = {};
    int length = sizeof(name);
    ASSERT_EQ(1, any->GetSockName(reinterpret_cast<sockaddr*>(&name), &length));
    EXPECT_EQ(htonl(INADDR_ANY), name.sin_addr.s_addr);
    unsigned short port;
    SocketPtr listen = Listen(port, 1);
    for (const wchar_t* bad : {static_cast<const wchar_t*>(nullptr), L"no-such-host.invalid"}) {
        EXPECT_EQ(0, any->Connect(bad, port));
        EXPECT_EQ(WSAEINVAL, COverlappedSocket::GetLastError());
    }
    ASSERT_EQ(1, any->Connect(L"localhost", port)) << COverlappedSocket::GetLastError();
    EXPECT_TRUE(client->connects.WaitAtLeast(1, "OnConnect after a resolved name"));
    EXPECT_EQ((Log{"OnConnect(0)"}), client->Log(any.get()));
}

// IPv6 beside IPv4: a listener on "::" serves both families; a socket made
// without an address takes the family of the peer it connects to (a TLS
// client then checks the certificate's IP address ::1); texts of neither
// family are refused and leave no socket behind.
TEST_P(BothKinds, Ipv6PeersAndADualStackListener)
{
    unsigned short port;
    SocketPtr listen = Listen(port, 2, nullptr, L"::");
    server->echo = true;
    struct Case {
        const wchar_t* bindTo;   // the client's CreateSocket address
        const wchar_t* peer;     // what it connects to
        const wchar_t* seenByServer;
    } cases[] = {{nullptr, L"::1", L"::1"}, {L"127.0.0.1", L"127.0.0.1", L"::ffff:127.0.0.1"}};
    std::vector<SocketPtr> clients;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "peer " << CString(c.peer).GetString());
        SocketPtr s = factory->CreateSocket(client, 0, c.bindTo);
        ASSERT_TRUE(s);
        const SOCKET hBefore = SocketPeek::Handle(s.get());
        ASSERT_EQ(1, s->Connect(c.peer, port)) << COverlappedSocket::GetLastError();
        if (c.bindTo == nullptr) {   // made for IPv4: Connect made a socket of the peer's family
            EXPECT_NE(hBefore, SocketPeek::Handle(s.get()));
        }
        ASSERT_TRUE(client->connects.WaitAtLeast((long)clients.size() + 1, "client OnConnect"));
        CString text;
        unsigned int peerPort = 0;
        ASSERT_EQ(1, s->GetPeerName(text, peerPort));
        EXPECT_STREQ(c.peer, text.GetString());
        EXPECT_EQ(port, peerPort);
        const std::string data = Pattern(5000, (unsigned)clients.size() + 7);
        ASSERT_EQ(5000, s->Send(data.data(), 5000, 0));
        ASSERT_TRUE(client->WaitFor([&] { return client->Received(s.get()).size() >= data.size(); }, "the echo"));
        EXPECT_TRUE(client->Received(s.get()) == data);
        const COverlappedSocket* accepted = Accepted(*server, clients.size());
        ASSERT_NE(nullptr, accepted);
        ASSERT_EQ(1, const_cast<COverlappedSocket*>(accepted)->GetPeerName(text, peerPort));
        EXPECT_STREQ(c.seenByServer, text.GetString());
        clients.push_back(s);
    }
    // The first client changed its socket for the peer's family: closed, it
    // must not be held on under its old handle until Destory.
    const COverlappedSocket* changed = clients[0].get();
    clients[0]->Close();
    clients[0].reset();
    EXPECT_TRUE(client->WaitFor([&] { return client->Log(changed).back() == "OnDelete"; },
                                "the socket that changed family destroyed once closed"));
    for (const wchar_t* bad : {L"::1::2", L"fe80::zz", L"[::1", L"[::1]", L"1.2.3.4.5", L"fe80::1%99999"}) {
        SCOPED_TRACE(testing::Message() << "address " << CString(bad).GetString());
        EXPECT_FALSE(factory->CreateSocket(client, 0, bad));
        EXPECT_NE(0, COverlappedSocket::GetLastError());
    }
    SocketPtr unbound = factory->CreateSocket(client, 0, nullptr);
    ASSERT_TRUE(unbound);
    for (const wchar_t* bad : {L"::1::2", L"[::1", L"fe80::zz"}) {
        EXPECT_EQ(0, unbound->Connect(bad, port));
        EXPECT_EQ(WSAEINVAL, COverlappedSocket::GetLastError());
    }
    SocketPtr bound4 = factory->CreateSocket(client, 0, L"127.0.0.1");
    ASSERT_TRUE(bound4);
    EXPECT_EQ(0, bound4->Connect(L"::1", port)) << "a socket bound to an IPv4 address stays IPv4";
    EXPECT_EQ(WSAEAFNOSUPPORT, COverlappedSocket::GetLastError());
}
