// Helpers of the message-window tests: a notify object that records what
// arrives, a window thread with the stack started, and access to fields.
#ifndef WISOCK_TESTS_WICOMM_COMM_HARNESS_H
#define WISOCK_TESTS_WICOMM_COMM_HARNESS_H

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/debug_capture.h"
#include "support/net.h"
#include "support/wait.h"
#include "support/window_thread.h"
#include "wicomm/wi_tcp.h"

typedef std::shared_ptr<CWiComm> CommPtr;

// One notification as the recorder saw it.
struct CommEvent {
    std::string kind;   // open, close, read, write, error
    CWiComm* pComm;
    int a;              // read/write: length; error: operation
    int b;              // error: code
    DWORD nThread;
    std::string data;   // read: the bytes
};

class Recorder final : public ICommNotifyObject {
public:
    std::function<void(CommPtr)> onOpen, onClose;
    std::function<void(const void*, int, CommPtr)> onRead;
    std::function<void(int, CommPtr)> onWrite;

    void OnOpen(CommPtr sp) override { Add("open", sp, 0, 0); Hook(onOpen, sp); }
    void OnClose(CommPtr sp) override { Add("close", sp, 0, 0); Hook(onClose, sp); }
    void OnReadComplete(const void* p, int n, CommPtr sp) override { Add("read", sp, n, 0, p); Hook(onRead, p, n, sp); }
    void OnWriteComplete(int n, CommPtr sp) override { Add("write", sp, n, 0); Hook(onWrite, n, sp); }
    void OnError(int nOperation, int nErrorCode, CommPtr sp) override { Add("error", sp, nOperation, nErrorCode); }

    // Events of a kind ("" for all), of one object (all with null).
    std::vector<CommEvent> Events(const std::string& kind = "", CWiComm* pComm = nullptr) const;
    int Count(const std::string& kind, CWiComm* pComm = nullptr) const { return (int)Events(kind, pComm).size(); }
    // "open", "read:5", "error:1:-1", ... for one object (all with null).
    std::vector<std::string> Kinds(CWiComm* pComm = nullptr) const;
    std::vector<int> Lengths(const std::string& kind, CWiComm* pComm) const;   // read/write lengths
    long WrittenBytes(CWiComm* pComm) const;     // sum of OnWriteComplete lengths
    std::string Data(CWiComm* pComm) const;      // all bytes read by the object
    // The object of the last OnOpen (on a listener's recorder: the last accepted).
    CommPtr LastOpened() const;
    void Forget();   // drops the references the recorder holds
    ::testing::AssertionResult WaitFor(const std::function<bool()>& condition, const std::string& what,
                                       std::chrono::milliseconds timeout = kDefaultWait) const
    {
        return m_signal.WaitFor(condition, what, timeout);
    }

private:
    template <class Fn, class... Args>
    static void Hook(const Fn& fn, Args... args)
    {
        if (fn)
            fn(args...);
    }
    void Add(const std::string& kind, const CommPtr& spComm, int a, int b, const void* pData = nullptr);
    mutable std::mutex m_mutex;
    ChangeSignal m_signal;
    std::vector<CommEvent> m_events;
    CommPtr m_spLastOpened;
};

// Each test: the stack started, a window thread, the debug output captured.
class WiCommTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // A notify object that outlives every object of the test (the stack stops first).
    Recorder& Rec() { m_recorders.emplace_back(); return m_recorders.back(); }
    // NewObject on the window thread (or on the second one).
    CommPtr Make(const std::string& option, ICommNotifyObject* pNotify, int nSSLMode = -1, bool bSecond = false);
    // A listener on a free port of this machine; its port in m_port.
    CommPtr Listen(ICommNotifyObject* pNotify, int nSSLMode = -1);
    // A client of m_port; TLS handshakes block their thread, so a TLS client
    // of a listener on the first thread runs on the second.
    CommPtr Connect(ICommNotifyObject* pNotify, int nSSLMode = -1, bool bSecond = false);
    void OnWindow(const std::function<void()>& fn) { ASSERT_TRUE(m_window->Run(fn)); }
    // A connected pair in listener, client and accepted (srv hears the first
    // and the last, cli the client), both opened. A TLS client of a TLS
    // listener runs on the second thread.
    void Pair(int nServerMode = -1, int nClientMode = -1);

    std::deque<Recorder> m_recorders;
    Recorder& srv = Rec();
    Recorder& cli = Rec();
    CommPtr listener, client, accepted;
    WinsockScope m_winsock;
    std::unique_ptr<WindowThread> m_window;
    std::unique_ptr<WindowThread> m_window2;
    DebugCapture m_debug;
    unsigned short m_port = 0;
    long m_nHandles = 0;
};

// A listener whose accept queue is full: the next connect stays under way.
struct StalledListener {
    StalledListener();
    ~StalledListener();
    unsigned short port = 0;
    SOCKET listener = INVALID_SOCKET;
    std::vector<SOCKET> fillers;
};

// Protected fields of a CWiTcp, for checks that the public interface can't make.
struct TcpPeek : CWiTcp {
    static CWiTcp* Tcp(const CommPtr& sp) { return static_cast<CWiTcp*>(sp.get()); }
    static SOCKET Socket(const CommPtr& sp) { return Tcp(sp)->*(&TcpPeek::m_hSocket); }
    static HWND Window(const CommPtr& sp) { return Tcp(sp)->*(&TcpPeek::m_hWnd); }
    static std::list<SendBlock>& Queue(const CommPtr& sp) { return Tcp(sp)->*(&TcpPeek::m_listSendBuffer); }
    static size_t& QueuedBytes(const CommPtr& sp) { return Tcp(sp)->*(&TcpPeek::m_nSendBufferSize); }
    static int BytesToRead(const CommPtr& sp) { return Tcp(sp)->*(&TcpPeek::m_nBytesToRead); }
    static int ReadBufferSize(const CommPtr& sp) { return Tcp(sp)->*(&TcpPeek::m_nReadBufferSize); }
    static size_t DeadCount();
    static size_t ActiveCount();
};

// Windows of class "SocketSink" of this process.
int SinkWindowsOfThisProcess();
std::vector<char> Pattern(size_t size, unsigned seed);
std::string Narrow(const CString& text);

#endif
