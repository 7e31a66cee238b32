#include "comm_harness.h"

#include <numeric>

#include "support/test_pki.h"

#include "module/scope_lock.h"
#include "support/leak.h"
#include "support/pattern.h"


// ---- Recorder -------------------------------------------------------------------

void Recorder::Add(const std::string& kind, const CommPtr& spComm, int a, int b, const void* pData)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back({kind, spComm.get(), a, b, GetCurrentThreadId(),
                            a > 0 && pData != nullptr ? std::string(static_cast<const char*>(pData), a) : ""});
        if (kind == "open")
            m_spLastOpened = spComm;
    }
    m_signal.Changed();
}

std::vector<CommEvent> Recorder::Events(const std::string& kind, CWiComm* pComm) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<CommEvent> out;
    for (const CommEvent& e : m_events)
        if ((kind.empty() || e.kind == kind) && (pComm == nullptr || e.pComm == pComm))
            out.push_back(e);
    return out;
}

std::vector<std::string> Recorder::Kinds(CWiComm* pComm) const
{
    std::vector<std::string> out;
    for (const CommEvent& e : Events("", pComm)) {
        out.push_back(e.kind);
        if (e.kind == "read" || e.kind == "write" || e.kind == "error")
            out.back() += ":" + std::to_string(e.a);
        if (e.kind == "error")
            out.back() += ":" + std::to_string(e.b);
    }
    return out;
}

std::vector<int> Recorder::Lengths(const std::string& kind, CWiComm* pComm) const
{
    std::vector<int> out;
    for (const CommEvent& e : Events(kind, pComm))
        out.push_back(e.a);
    return out;
}

long Recorder::WrittenBytes(CWiComm* pComm) const
{
    std::vector<int> lengths = Lengths("write", pComm);
    return std::accumulate(lengths.begin(), lengths.end(), 0L);
}

std::string Recorder::Data(CWiComm* pComm) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string out;
    for (const CommEvent& e : m_events)
        if (e.pComm == pComm)
            out += e.data;
    return out;
}

CommPtr Recorder::LastOpened() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_spLastOpened;
}

void Recorder::Forget()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_spLastOpened.reset();
}

// ---- fixture ----------------------------------------------------------------------

void WiCommTest::SetUp()
{
    UseTestCertificates();
    ASSERT_EQ(1, CWiComm::Startup());
    m_window.reset(new WindowThread);
    m_window2.reset(new WindowThread);
    m_debug.Clear();
    m_nHandles = ProcessHandleCount();
}

// Whatever a test left open, Cleanup leaves no object, window or handle.
void WiCommTest::TearDown()
{
    // The stop runs on the window thread, so windows still open go at once.
    EXPECT_TRUE(m_window->Run([] { CWiComm::Cleanup(); }));
    EXPECT_TRUE(m_window2->Run([] {}));   // windows of the second thread close there
    listener.reset(), client.reset(), accepted.reset();
    for (Recorder& rec : m_recorders)
        rec.Forget();
    EXPECT_EQ(0u, TcpPeek::ActiveCount() + TcpPeek::DeadCount()) << "objects registered after Cleanup";
    EXPECT_EQ(0, SinkWindowsOfThisProcess());
    EXPECT_TRUE(Eventually([&] { return ProcessHandleCount() <= m_nHandles; }, "handles back after Cleanup"))
        << ProcessHandleCount() << " handles, " << m_nHandles << " before the test";
    m_window.reset();
    m_window2.reset();
}

CommPtr WiCommTest::Make(const std::string& option, ICommNotifyObject* pNotify, int nSSLMode, bool bSecond)
{
    CommPtr spComm;
    EXPECT_TRUE((bSecond ? m_window2 : m_window)->Run([&] {
        spComm = CWiComm::NewObject(CWiComm::CLASSID_WITCP, option.c_str(), pNotify, nSSLMode);
    }));
    return spComm;
}

CommPtr WiCommTest::Listen(ICommNotifyObject* pNotify, int nSSLMode)
{
    m_port = FreeLoopbackPort();
    return Make("S:" + std::to_string(m_port), pNotify, nSSLMode);
}

CommPtr WiCommTest::Connect(ICommNotifyObject* pNotify, int nSSLMode, bool bSecond)
{
    return Make("C:0,127.0.0.1," + std::to_string(m_port), pNotify, nSSLMode, bSecond);
}

void WiCommTest::Pair(int nServerMode, int nClientMode)
{
    const int nClientOpens = cli.Count("open"), nServerOpens = srv.Count("open");
    listener = Listen(&srv, nServerMode);
    ASSERT_TRUE(listener);
    client = Connect(&cli, nClientMode, nServerMode == 1 || nClientMode == 0);
    ASSERT_TRUE(client);
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Count("open") == nClientOpens + 1; }, "client OnOpen"));
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("open") == nServerOpens + 2; }, "accepted OnOpen"));
    accepted = srv.LastOpened();
    srv.Forget();
}

StalledListener::StalledListener()
{
    listener = ListenLoopback(port, 1);
    for (int i = 0; i < 8; ++i) {
        SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
        u_long nb = 1;
        ioctlsocket(s, FIONBIO, &nb);
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(s, (sockaddr*)&addr, sizeof(addr));
        fillers.push_back(s);
    }
}

StalledListener::~StalledListener()
{
    for (SOCKET s : fillers)
        closesocket(s);
    closesocket(listener);
}

// ---- peeks and helpers ----------------------------------------------------------------

size_t TcpPeek::DeadCount()
{
    CScopeLock lock(TcpPeek::ms_csCommSet);
    return TcpPeek::ms_DeadComm.size();
}

size_t TcpPeek::ActiveCount()
{
    CScopeLock lock(TcpPeek::ms_csCommSet);
    return TcpPeek::ms_ActiveComm.size();
}

int SinkWindowsOfThisProcess()
{
    int n = 0;
    for (HWND hWnd = NULL; (hWnd = FindWindowExW(NULL, hWnd, L"SocketSink", NULL)) != NULL;) {
        DWORD nProcess = 0;
        GetWindowThreadProcessId(hWnd, &nProcess);
        n += nProcess == GetCurrentProcessId() ? 1 : 0;
    }
    return n;
}

std::vector<char> Pattern(size_t size, unsigned seed) { return PatternBytes<std::vector<char>>(size, seed); }

std::string Narrow(const CString& text)
{
    std::string out;
    for (int i = 0; i < text.GetLength(); ++i)
        out += (char)text[i];
    return out;
}
