// Byte streams through TLS sockets of the completion-port stack, server and
// client on TLS factories: exact bytes both ways, merged small sends, sends
// queued before the handshake, and a writer held up by a slow reader.
#include <algorithm>
#include <string>
#include <vector>

#include "support/debug_capture.h"
#include "tls_fixture.h"

namespace {

// The server sends back what it receives.
void MakeEcho(Recorder& server)
{
    server.onReceive = [](const void* pData, int nLength, SocketPtr spSocket) {
        EXPECT_EQ(nLength, spSocket->Send(pData, nLength, 0)) << "echo Send failed: " << WSAGetLastError();
    };
}

// Sends data in pieces of at most nPiece bytes.
void SendInPieces(const SocketPtr& spSocket, const std::string& data, size_t nPiece)
{
    for (size_t nDone = 0; nDone < data.size(); nDone += nPiece) {
        int nLength = static_cast<int>(std::min(nPiece, data.size() - nDone));
        ASSERT_EQ(nLength, spSocket->Send(data.data() + nDone, nLength, 0)) << "Send failed: " << WSAGetLastError();
    }
}

}  // namespace

class TlsEcho : public TlsServerTest {};

TEST_F(TlsEcho, EveryByteComesBackFromOneByteToEightMegabytes)
{
    MakeEcho(*m_spServer);
    const size_t sizes[] = {1, 4095, 4096, 4097, 65543, 8 << 20};
    long nExpected = 0;
    for (size_t nSize : sizes) {
        SCOPED_TRACE("size " + std::to_string(nSize));
        auto spClient = std::make_shared<Recorder>();
        SocketPtr spSocket = ConnectClient(spClient);
        ASSERT_TRUE(spSocket);
        ASSERT_TRUE(spClient->connects.WaitAtLeast(1, "client OnConnect"));
        std::string data = Pattern(nSize, static_cast<unsigned>(nSize));
        SendInPieces(spSocket, data, 1 << 20);
        ASSERT_TRUE(spClient->receivedBytes.WaitAtLeast(static_cast<long>(nSize), "the echo of all bytes",
                                                        std::chrono::seconds(60)));
        EXPECT_TRUE(spClient->Received(spSocket.get()) == data) << "echoed bytes differ";
        nExpected += static_cast<long>(nSize);
        spSocket->Close();
        spSocket.reset();
        ASSERT_TRUE(spClient->deletes.WaitAtLeast(1, "client socket deleted"));
    }
    EXPECT_TRUE(m_spServer->receivedBytes.WaitAtLeast(nExpected, "server got all bytes"));
}

// The same over IPv6: the client checks the certificate's IP address ::1.
class TlsEchoOverIpv6 : public TlsServerTest {
protected:
    TlsEchoOverIpv6() { m_pszAddress = L"::1"; }
};

TEST_F(TlsEchoOverIpv6, BytesComeBackAndTheCertificateNamesTheAddress)
{
    MakeEcho(*m_spServer);
    auto spClient = std::make_shared<Recorder>();
    SocketPtr spSocket = ConnectClient(spClient);
    ASSERT_TRUE(spSocket) << WSAGetLastError();
    ASSERT_TRUE(spClient->connects.WaitAtLeast(1, "client OnConnect"));
    std::string data = Pattern(65543, 11);
    SendInPieces(spSocket, data, 1 << 20);
    ASSERT_TRUE(spClient->receivedBytes.WaitAtLeast(65543, "the echo of all bytes"));
    EXPECT_TRUE(spClient->Received(spSocket.get()) == data) << "echoed bytes differ";
}

TEST_F(TlsEcho, ManySmallSendsArriveInOrder)
{
    MakeEcho(*m_spServer);
    SocketPtr spSocket = ConnectClient(m_spClient);
    ASSERT_TRUE(spSocket);
    ASSERT_TRUE(m_spClient->connects.WaitAtLeast(1, "client OnConnect"));
    std::string data = Pattern(3000 * 7, 7);
    SendInPieces(spSocket, data, 7);
    ASSERT_TRUE(m_spClient->receivedBytes.WaitAtLeast(static_cast<long>(data.size()), "the echo of 3000 small sends"));
    EXPECT_TRUE(m_spClient->Received(spSocket.get()) == data);
    // Merged into records of 4096 bytes: far fewer writes than sends.
    EXPECT_LT(m_spClient->sendNotes.Get(), 3000);
}

// Send before the handshake: records queue (small sends merge into the last
// record of the same flags) and go out in order once the handshake has ended.
TEST_F(TlsEcho, SendsBeforeTheHandshakeAreMergedAndGoOutAfterIt)
{
    MakeEcho(*m_spServer);
    SocketPtr spSocket = m_spFactory->CreateSocket(m_spClient, 0, L"127.0.0.1");
    ASSERT_TRUE(spSocket);
    std::string data = Pattern(10300, 3);
    EXPECT_EQ(100, spSocket->Send(data.data(), 100, 0));
    EXPECT_EQ(100, spSocket->Send(data.data() + 100, 100, 0));
    EXPECT_EQ(1u, spSocket->GetWaitSendListPackSize()) << "two sends with the same flags share a record";
    EXPECT_EQ(100, spSocket->Send(data.data() + 200, 100, 1));
    EXPECT_EQ(2u, spSocket->GetWaitSendListPackSize()) << "other flags start a new record";
    EXPECT_EQ(10000, spSocket->Send(data.data() + 300, 10000, 1));
    EXPECT_EQ(4u, spSocket->GetWaitSendListPackSize()) << "3996 bytes fill the last record, then 4096 and 1908";
    EXPECT_EQ(10300u, spSocket->GetWaitSendListBufferSize());

    ASSERT_TRUE(spSocket->Connect(L"127.0.0.1", m_nPort));
    ASSERT_TRUE(m_spClient->receivedBytes.WaitAtLeast(10300, "the echo of the bytes queued before the handshake"));
    EXPECT_TRUE(m_spClient->Received(spSocket.get()) == data);
    std::vector<Note> kinds = m_spClient->KindsOf(spSocket.get());
    ASSERT_FALSE(kinds.empty());
    EXPECT_EQ(Note::Connect, kinds.front()) << "OnConnect comes before every OnSend and OnReceive";
}

TEST_F(TlsEcho, WriterHeldUpBySlowReaderResumesOnFdWrite)
{
    DebugCapture capture;
    auto spReaderMayGo = std::make_shared<TestEvent>();
    auto spReaderStalled = std::make_shared<EventCounter>();
    m_spServer->onReceive = [spReaderMayGo, spReaderStalled](const void*, int, SocketPtr) {
        if (spReaderStalled->Get() == 0) {
            spReaderStalled->Add();
            EXPECT_TRUE(spReaderMayGo->Wait("the test to release the reader", std::chrono::seconds(30)));
        }
    };
    TestEvent& readerMayGo = *spReaderMayGo;
    EventCounter& readerStalled = *spReaderStalled;
    SocketPtr spSocket = m_spFactory->CreateSocket(m_spClient, 0, L"127.0.0.1");
    ASSERT_TRUE(spSocket);
    int nSmall = 8192;
    spSocket->SetSockOpt(SO_SNDBUF, &nSmall, sizeof(nSmall));
    ASSERT_TRUE(spSocket->Connect(L"127.0.0.1", m_nPort));
    ASSERT_TRUE(m_spClient->connects.WaitAtLeast(1, "client OnConnect"));
    std::string data = Pattern(8 << 20, 11);
    SendInPieces(spSocket, data, 1 << 20);
    ASSERT_TRUE(readerStalled.WaitAtLeast(1, "the server's first OnReceive"));
    ASSERT_TRUE(Eventually(
        [&] {
            for (const std::wstring& text : capture.StartingWith(L"OPENSSL_write return -1, Error = 10035, "))
                if (!text.empty())
                    return true;
            return false;
        },
        "the client's OPENSSL_write to meet would-block while the reader stalls", std::chrono::seconds(30)));
    readerMayGo.Set();
    ASSERT_TRUE(m_spServer->receivedBytes.WaitAtLeast(static_cast<long>(data.size()), "all bytes after FD_WRITE",
                                                      std::chrono::seconds(60)));
    SocketPtr spServerSide = m_spServer->FirstConnected();
    ASSERT_TRUE(spServerSide);
    EXPECT_TRUE(m_spServer->Received(spServerSide.get()) == data) << "bytes lost or reordered around would-block";
    EXPECT_EQ(0u, spSocket->GetWaitSendListPackSize());
}
