// Bind's port-owner rule and address forms; name resolution only in Connect.
#include "stack_fixture.h"

TEST_F(StackTest, BindRefusesAPortWithAListenerOnAnyAddressWithoutBinding)
{
    unsigned short port = 0;
    SOCKET listener = ListenLoopback(port);   // 127.0.0.1:port, another owner
    ASSERT_NE(INVALID_SOCKET, listener);
    // 127.0.0.2:port is free for bind itself: only the listener rule refuses it.
    // The look-up gives up (and bind goes ahead) when the TCP table changes
    // between its two reads, which other test programs running at the same
    // time can cause; so a bind that got through is undone and tried again.
    bool refused = false;
    for (int attempt = 0; attempt < 5 && !refused; ++attempt) {
        SocketPtr s = factory->CreateSocket(client, port, L"127.0.0.2");
        refused = !s && COverlappedSocket::GetLastError() == WSAEADDRINUSE;
        if (s)
            s->Close();
    }
    EXPECT_TRUE(refused) << "Bind must refuse a port that has a listener on another address";
    closesocket(listener);
    SocketPtr s = factory->CreateSocket(client, port, L"127.0.0.2");
    EXPECT_TRUE(s) << "free again once the listener is gone, error " << COverlappedSocket::GetLastError();
}

TEST_F(StackTest, BindRefusesAPortThisProcessListensOn)
{
    unsigned short port;
    SocketPtr listen = Listen(port, 1);
    // Retried as above when a changing TCP table made the look-up give up.
    bool refused = false;
    for (int attempt = 0; attempt < 5 && !refused; ++attempt) {
        SocketPtr s = factory->CreateSocket(client, port, nullptr);
        refused = !s && COverlappedSocket::GetLastError() == WSAEADDRINUSE;
        if (s)
            s->Close();
    }
    EXPECT_TRUE(refused) << "Bind must refuse a port this process listens on";
}

TEST_F(StackTest, BindTakesOnlyDottedNumbers)
{
    EXPECT_FALSE(factory->CreateSocket(client, 0, L"localhost"));
    EXPECT_EQ(WSAEINVAL, COverlappedSocket::GetLastError());
    EXPECT_FALSE(factory->CreateSocket(client, 0, L"255.255.255.255"));
    EXPECT_EQ(WSAEINVAL, COverlappedSocket::GetLastError());
    EXPECT_FALSE(factory->CreateSocket(nullptr, 0, L"127.0.0.1")) << "no notify object, no socket";
    SocketPtr any = factory->CreateSocket(client, 0, nullptr);
    ASSERT_TRUE(any);
    sockaddr_in name = {};
    int length = sizeof(name);
    ASSERT_EQ(1, any->GetSockName(reinterpret_cast<sockaddr*>(&name), &length));
    EXPECT_EQ(htonl(INADDR_ANY), name.sin_addr.s_addr);
}

TEST_F(StackTest, ConnectResolvesHostNames)
{
    unsigned short port;
    SocketPtr listen = Listen(port, 1);
    SocketPtr c = factory->CreateSocket(client, 0, nullptr);
    ASSERT_TRUE(c);
    EXPECT_EQ(0, c->Connect(static_cast<const wchar_t*>(nullptr), port));
    EXPECT_EQ(WSAEINVAL, COverlappedSocket::GetLastError());
    ASSERT_EQ(1, c->Connect(L"localhost", port)) << COverlappedSocket::GetLastError();
    EXPECT_TRUE(client->connects.WaitAtLeast(1, "OnConnect after a resolved name"));
    EXPECT_EQ((Log{"OnConnect(0)"}), client->Log(c.get()));
    SocketPtr d = factory->CreateSocket(client, 0, nullptr);
    ASSERT_TRUE(d);
    EXPECT_EQ(0, d->Connect(L"no-such-host.invalid", port));
    EXPECT_EQ(WSAEINVAL, COverlappedSocket::GetLastError());
}
