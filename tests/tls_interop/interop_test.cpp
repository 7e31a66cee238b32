// TLS between the two stacks: a completion-port TLS server with a CWiTcp TLS
// client on a window thread, and a CWiTcp TLS server with a completion-port
// TLS client. Data of many sizes (1 byte to 256 KiB, across the 4096-byte
// record and block edges) comes back byte for byte, each side sees the other
// end the connection, and nothing is left behind on the module heap or in the
// handle table.
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "factory/overlapped_socket_factory.h"
#include "overlapped/overlapped_socket.h"
#include "overlapped/socket_notify.h"
#include "support/leak.h"
#include "support/net.h"
#include "support/pattern.h"
#include "support/wait.h"
#include "support/window_thread.h"
#include "wicomm/wi_tcp.h"

namespace {

typedef std::shared_ptr<COverlappedSocket> SocketPtr;
typedef std::shared_ptr<CWiComm> CommPtr;

// Sizes sent one after the other on one connection; a warm-up sends less.
const std::vector<size_t> kSizes = {1, 4095, 4096, 4097, 65539, 256 * 1024};
const std::vector<size_t> kWarmUpSizes = {1, 5000};

std::string Pattern(size_t size, unsigned seed) { return PatternBytes<std::string>(size, seed); }

// Bytes that arrived on one connection, and a counter to wait on.
class Inbox {
public:
    void Append(const void* pData, int nLength)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_data.append(static_cast<const char*>(pData), static_cast<size_t>(nLength));
        }
        bytes.Add(nLength);
    }
    std::string Data() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_data;
    }
    EventCounter bytes;

private:
    mutable std::mutex m_mutex;
    std::string m_data;
};

// Completion-port side: echoes (server) or collects (client), and counts the
// life of every socket it hears of.
class IocpPeer : public ISocketNotifyObject {
public:
    explicit IocpPeer(bool bEcho) : m_bEcho(bEcho) {}
    void OnConnect(int nErrorCode, SocketPtr) override { (nErrorCode == 0 ? connects : failedConnects).Add(); }
    void OnClose(int, SocketPtr) override { closes.Add(); }
    void OnReceive(int, const void* pData, int nLength, SocketPtr s) override
    {
        if (m_bEcho)
            s->Send(pData, nLength, 0);
        else
            inbox.Append(pData, nLength);
    }
    void OnSend(int, int, SocketPtr) override {}
    DWORD OnReceiveTimeout(SocketPtr) override { return 0; }
    void OnDelete(COverlappedSocket*) override { deletes.Add(); }

    EventCounter connects, failedConnects, closes, deletes;
    Inbox inbox;

private:
    bool m_bEcho;
};

// Message-window side, the same two roles. The server keeps the accepted
// connection and closes it when its peer has closed.
class WindowPeer : public ICommNotifyObject {
public:
    explicit WindowPeer(bool bEcho) : m_bEcho(bEcho) {}
    void OnOpen(CommPtr spComm) override
    {
        if (spComm->GetOpenOption().Left(2) == L"C:") {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_spConnection = spComm;
        }
        opens.Add();
    }
    void OnClose(CommPtr spComm) override
    {
        spComm->Close();   // after a peer's close: give back socket and window
        closes.Add();
    }
    void OnReadComplete(const void* pData, int nLength, CommPtr spComm) override
    {
        if (nLength <= 0)
            return;
        if (m_bEcho)
            spComm->Write(pData, static_cast<unsigned long>(nLength));
        else
            inbox.Append(pData, nLength);
    }
    void OnWriteComplete(int, CommPtr) override {}
    void OnError(int, int, CommPtr) override { errors.Add(); }

    CommPtr Connection()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_spConnection;
    }
    void Forget()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_spConnection.reset();
    }

    EventCounter opens, closes, errors;
    Inbox inbox;

private:
    bool m_bEcho;
    std::mutex m_mutex;
    CommPtr m_spConnection;
};

// Sends each size in turn and checks that everything so far came back unchanged.
template <typename SendFn>
void EchoEverySize(const std::vector<size_t>& sizes, SendFn send, const Inbox& inbox)
{
    std::string expected;
    unsigned seed = 1;
    for (size_t size : sizes) {
        std::string chunk = Pattern(size, seed++);
        expected += chunk;
        ASSERT_TRUE(send(chunk)) << "sending " << size << " bytes failed";
        ASSERT_TRUE(inbox.bytes.WaitAtLeast(static_cast<long>(expected.size()),
                                            "echo of " + std::to_string(size) + " bytes"));
        ASSERT_EQ(expected.size(), inbox.Data().size()) << "more came back than was sent";
        ASSERT_TRUE(inbox.Data() == expected) << "the echo of " << size << " bytes differs from what was sent";
    }
}

unsigned short ListenPort(const SocketPtr& spListen)
{
    CString address;
    unsigned int port = 0;
    spListen->GetSockName(address, port);
    return static_cast<unsigned short>(port);
}

class TlsInteropTest : public ::testing::Test {
protected:
    // The server's certificate is Sealkit's ephemeral self-signed one.
    static void SetUpTestSuite() { SetEnvironmentVariableW(L"SEALKIT_VERIFY", L"0"); }

    // One completion-port TLS server and a CWiTcp TLS client; the client ends the connection.
    void IocpServerWindowClient(const std::vector<size_t>& sizes);
    // One CWiTcp TLS server and a completion-port TLS client; the server ends the connection.
    void WindowServerIocpClient(const std::vector<size_t>& sizes);

    void StartStack() { ASSERT_EQ(1, CWiComm::Startup()); }
    // Stops the message-window stack on its thread (its windows go with it).
    void StopStack() { ASSERT_TRUE(m_window.Run([] { CWiComm::Cleanup(); })); }

    WinsockScope m_winsock;
    WindowThread m_window;
};

void TlsInteropTest::IocpServerWindowClient(const std::vector<size_t>& sizes)
{
    auto spFactory = COverlappedSocketFactory::CreateObject(COverlappedSocketFactory::KIND_SSL, 2);
    ASSERT_TRUE(spFactory) << "CreateObject(1, 2) gave no TLS factory";
    auto spServer = std::make_shared<IocpPeer>(true);
    SocketPtr spListen = spFactory->CreateSocket(spServer, 0, L"127.0.0.1");
    ASSERT_TRUE(spListen && spListen->Listen(4));
    spFactory->CreateSocket(spServer, spListen, 2);
    std::string option = "C:0,127.0.0.1," + std::to_string(ListenPort(spListen));

    WindowPeer client(false);
    StartStack();
    CommPtr spClient;
    ASSERT_TRUE(m_window.Run([&] { spClient = CWiComm::NewObject(CWiComm::CLASSID_WITCP, option.c_str(), &client, 0); }));
    ASSERT_TRUE(spClient) << "NewObject for a TLS client failed";
    ASSERT_TRUE(client.opens.WaitAtLeast(1, "CWiTcp TLS client opened (handshake with COverlappedSSL)"));
    ASSERT_TRUE(spServer->connects.WaitAtLeast(1, "COverlappedSSL server OnConnect(0)"));
    EchoEverySize(
        sizes, [&](const std::string& chunk) { return spClient->Write(chunk.data(), (unsigned long)chunk.size()) == 1; },
        client.inbox);
    ASSERT_TRUE(m_window.Run([&] { spClient->Close(); }));
    EXPECT_EQ(1, client.closes.Get()) << "the client's own Close reports OnClose once";
    // The listen socket and the waiting accepts are still open: only the connection ends.
    ASSERT_TRUE(spServer->closes.WaitAtLeast(1, "COverlappedSSL server saw the CWiTcp client's close"));
    EXPECT_EQ(0, spServer->failedConnects.Get());
    spListen.reset();
    spClient.reset();
    spFactory->Destory();
    EXPECT_TRUE(Eventually([&] { return spServer->deletes.Get() == spServer->closes.Get(); },
                           "every server socket closed once and deleted after Destory"));
    StopStack();
}

void TlsInteropTest::WindowServerIocpClient(const std::vector<size_t>& sizes)
{
    WindowPeer server(true);
    StartStack();
    std::string option = "S:" + std::to_string(FreeLoopbackPort());
    CommPtr spListen;
    ASSERT_TRUE(m_window.Run([&] { spListen = CWiComm::NewObject(CWiComm::CLASSID_WITCP, option.c_str(), &server, 1); }));
    ASSERT_TRUE(spListen) << "NewObject for a TLS listener failed (" << option << ")";
    unsigned short port = static_cast<unsigned short>(std::stoi(option.substr(2)));

    auto spFactory = COverlappedSocketFactory::CreateObject(COverlappedSocketFactory::KIND_SSL, 2);
    ASSERT_TRUE(spFactory) << "CreateObject(1, 2) gave no TLS factory";
    auto spClient = std::make_shared<IocpPeer>(false);
    SocketPtr spSocket = spFactory->CreateSocket(spClient, 0, L"127.0.0.1");
    ASSERT_TRUE(spSocket && spSocket->Connect(L"127.0.0.1", port));
    ASSERT_TRUE(spClient->connects.WaitAtLeast(1, "COverlappedSSL client OnConnect(0) (handshake with CWiTcp)"));
    ASSERT_TRUE(server.opens.WaitAtLeast(2, "CWiTcp TLS listener opened and accepted"));
    EchoEverySize(
        sizes, [&](const std::string& chunk) { return spSocket->Send(chunk.data(), (int)chunk.size(), 0) == (int)chunk.size(); },
        spClient->inbox);

    CommPtr spAccepted = server.Connection();
    ASSERT_TRUE(spAccepted);
    ASSERT_TRUE(m_window.Run([&] { spAccepted->Close(); }));
    ASSERT_TRUE(spClient->closes.WaitAtLeast(1, "COverlappedSSL client saw the CWiTcp server's close"));
    EXPECT_EQ(0, spClient->failedConnects.Get());
    EXPECT_EQ(0, server.errors.Get());
    spSocket.reset();
    spFactory->Destory();
    EXPECT_TRUE(spClient->deletes.WaitAtLeast(1, "the client socket deleted once its last reference went"));
    EXPECT_EQ(1, spClient->closes.Get()) << "one OnClose for the client socket";
    ASSERT_TRUE(m_window.Run([&] { spListen->Close(); }));
    server.Forget();
    spAccepted.reset();
    spListen.reset();
    StopStack();
}

}  // namespace

TEST_F(TlsInteropTest, IocpServerEchoesToWindowClientByteExactAndLeavesNothing)
{
    IocpServerWindowClient(kWarmUpSizes);   // what the process keeps for good exists before the baseline
    if (HasFatalFailure())
        return;
    LeakBaseline baseline;
    IocpServerWindowClient(kSizes);
    if (HasFatalFailure())
        return;
    EXPECT_TRUE(baseline.Check("COverlappedSSL server, CWiTcp TLS client"));
}

TEST_F(TlsInteropTest, WindowServerEchoesToIocpClientByteExactAndLeavesNothing)
{
    WindowServerIocpClient(kWarmUpSizes);
    if (HasFatalFailure())
        return;
    LeakBaseline baseline;
    WindowServerIocpClient(kSizes);
    if (HasFatalFailure())
        return;
    EXPECT_TRUE(baseline.Check("CWiTcp TLS server, COverlappedSSL client"));
}
