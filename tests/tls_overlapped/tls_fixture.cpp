#include "tls_fixture.h"

#include <algorithm>

#include "support/pattern.h"

void Recorder::Add(Note kind, int error, const COverlappedSocket* pSocket, int length)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_notes.push_back({kind, error, pSocket, length});
}

void Recorder::OnConnect(int nErrorCode, SocketPtr spSocket)
{
    Add(Note::Connect, nErrorCode, spSocket.get(), 0);
    if (nErrorCode == 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected.push_back(spSocket);
    }
    if (onConnect)
        onConnect(nErrorCode, spSocket);
    connects.Add();
}

void Recorder::OnClose(int nErrorCode, SocketPtr spSocket)
{
    Add(Note::Close, nErrorCode, spSocket.get(), 0);
    {
        // The recorder lets go of the socket with its end.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected.erase(std::remove(m_connected.begin(), m_connected.end(), spSocket), m_connected.end());
    }
    if (onClose)
        onClose(nErrorCode, spSocket);
    closes.Add();
}

void Recorder::OnReceive(int nErrorCode, const void* pData, int nLength, SocketPtr spSocket)
{
    Add(Note::Receive, nErrorCode, spSocket.get(), nLength);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_received[spSocket.get()].append(static_cast<const char*>(pData), static_cast<size_t>(nLength));
    }
    if (onReceive)
        onReceive(pData, nLength, spSocket);
    receivedBytes.Add(nLength);
}

void Recorder::OnSend(int nErrorCode, int nLength, SocketPtr spSocket)
{
    Add(Note::Send, nErrorCode, spSocket.get(), nLength);
    if (onSend)
        onSend(nLength, spSocket);
    sendNotes.Add();
}

void Recorder::OnDelete(COverlappedSocket* pSocket)
{
    Add(Note::Delete, 0, pSocket, 0);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_received.erase(pSocket);
    }
    deletes.Add();
}

std::vector<Notification> Recorder::Of(const COverlappedSocket* pSocket) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Notification> result;
    for (const Notification& note : m_notes)
        if (note.socket == pSocket)
            result.push_back(note);
    return result;
}

std::vector<Note> Recorder::KindsOf(const COverlappedSocket* pSocket) const
{
    std::vector<Note> kinds;
    Note last = Note::Delete;
    for (const Notification& note : Of(pSocket)) {
        // Consecutive receives and sends are one step of the order.
        if (!kinds.empty() && note.kind == last && (last == Note::Receive || last == Note::Send))
            continue;
        kinds.push_back(note.kind);
        last = note.kind;
    }
    return kinds;
}

std::string Recorder::Received(const COverlappedSocket* pSocket) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_received.find(pSocket);
    return it == m_received.end() ? std::string() : it->second;
}

size_t Recorder::ReceivedSize(const COverlappedSocket* pSocket) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_received.find(pSocket);
    return it == m_received.end() ? 0 : it->second.size();
}

SocketPtr Recorder::FirstConnected() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connected.empty() ? SocketPtr() : m_connected.front();
}

long Recorder::Count(Note kind) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<long>(std::count_if(m_notes.begin(), m_notes.end(),
                                           [kind](const Notification& n) { return n.kind == kind; }));
}

::testing::AssertionResult Recorder::EachSocketClosedOnceThenDeleted() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::map<const COverlappedSocket*, int> closesOfLife;
    for (const Notification& note : m_notes) {
        if (note.kind == Note::Close && ++closesOfLife[note.socket] > 1)
            return ::testing::AssertionFailure() << "a socket got a second OnClose";
        if (note.kind == Note::Delete) {
            if (closesOfLife[note.socket] != 1)
                return ::testing::AssertionFailure() << "a socket got OnDelete without exactly one OnClose before";
            closesOfLife.erase(note.socket);
        }
    }
    if (!closesOfLife.empty())
        return ::testing::AssertionFailure() << closesOfLife.size() << " closed socket(s) never got OnDelete";
    return ::testing::AssertionSuccess();
}



std::string Pattern(size_t size, unsigned seed) { return PatternBytes<std::string>(size, seed); }

unsigned short LocalPort(const SocketPtr& spSocket)
{
    CString strAddress;
    unsigned int nPort = 0;
    spSocket->GetSockName(strAddress, nPort);
    return static_cast<unsigned short>(nPort);
}

void TlsServerTest::SetUp()
{
    m_spFactory = COverlappedSocketFactory::CreateObject(1, 4);
    ASSERT_TRUE(m_spFactory) << "CreateObject(1, 4) gave no TLS factory";
    m_spListen = m_spFactory->CreateSocket(m_spServer, 0, m_pszAddress);
    ASSERT_TRUE(m_spListen);
    ASSERT_TRUE(m_spListen->IsKindOf(RUNTIME_CLASS(COverlappedSSL))) << "a TLS factory made a plain socket";
    ASSERT_EQ(1, m_spListen->Listen(16));
    m_nPort = LocalPort(m_spListen);
    ASSERT_NE(0, m_nPort);
    m_pool = m_spFactory->CreateSocket(m_spServer, m_spListen, 4);
    for (const SocketPtr& spAccept : m_pool)
        ASSERT_TRUE(spAccept) << "an accept of the pool failed";
    m_pool.clear();   // the factory and the listen socket hold them
}

void TlsServerTest::TearDown()
{
    if (m_spFactory)
        m_spFactory->Destory();
    m_pool.clear();
    m_spListen.reset();
}

SocketPtr TlsServerTest::ConnectClient(const std::shared_ptr<Recorder>& spClient)
{
    SocketPtr spSocket = m_spFactory->CreateSocket(spClient, 0, nullptr);
    if (spSocket && !spSocket->Connect(m_pszAddress, m_nPort))
        return SocketPtr();
    return spSocket;
}
