// The message-window stack: a listener on a window thread of its own echoes
// what it reads; a client on this thread sends a message, waits for its echo
// and sends the next. Once in plain TCP, once over TLS.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <string>
#include <thread>

#include "demo_section.h"
#include "wicomm/wi_tcp.h"

namespace {

const int kMessages = 200;
const int kMessageSize = 1024;
typedef std::shared_ptr<CWiComm> CommPtr;

class EchoServer : public ICommNotifyObject {
public:
    void OnOpen(CommPtr) override {}
    void OnClose(CommPtr) override {}
    void OnReadComplete(const void* pData, int nLength, CommPtr sp) override
    {
        if (nLength > 0)
            sp->Write(pData, (unsigned long)nLength);
    }
    void OnWriteComplete(int, CommPtr) override {}
    void OnError(int, int, CommPtr) override {}
};

class EchoClient : public ICommNotifyObject {
public:
    std::string message = std::string(kMessageSize, 'm');
    long echoed = 0;        // whole messages back
    long long bytes = 0;
    bool failed = false;
    bool closed = false;
    size_t pending = 0;     // bytes of the current message still to come

    void OnOpen(CommPtr sp) override { Send(sp); }
    void OnClose(CommPtr) override { closed = true; }
    void OnReadComplete(const void*, int nLength, CommPtr sp) override
    {
        bytes += 2LL * nLength;
        pending -= (size_t)nLength < pending ? (size_t)nLength : pending;
        if (pending == 0 && ++echoed < kMessages)
            Send(sp);
    }
    void OnWriteComplete(int, CommPtr) override {}
    void OnError(int, int, CommPtr) override { failed = true; }

private:
    void Send(const CommPtr& sp)
    {
        pending = message.size();
        sp->Write(message.data(), (unsigned long)message.size());
    }
};

void PumpUntil(const EchoClient& client, DWORD timeoutMs)
{
    const ULONGLONG deadline = GetTickCount64() + timeoutMs;
    MSG msg;
    while (client.echoed < kMessages && !client.failed && !client.closed && GetTickCount64() < deadline) {
        MsgWaitForMultipleObjects(0, NULL, FALSE, 20, QS_ALLINPUT);
        while (PeekMessageW(&msg, NULL, 0, 0, PM_REMOVE))
            DispatchMessageW(&msg);
    }
}

// One echo run: listener on a window thread, client here. Returns whole echoes.
long RunEcho(int nServerMode, int nClientMode, long long& bytes)
{
    EchoServer server;
    EchoClient client;
    DWORD serverThread = 0;
    HANDLE ready = CreateEventW(NULL, TRUE, FALSE, NULL);
    unsigned short port = 0;
    std::thread window([&] {
        serverThread = GetCurrentThreadId();
        CommPtr listener;
        for (port = 47000; port < 47100 && !listener; ++port)
            listener = CWiComm::NewObject(CWiComm::CLASSID_WITCP, ("S:" + std::to_string(port)).c_str(), &server,
                                          nServerMode);
        --port;
        SetEvent(ready);
        MSG msg;
        while (GetMessageW(&msg, NULL, 0, 0) > 0)
            DispatchMessageW(&msg);
        if (listener)
            listener->Close();
    });
    WaitForSingleObject(ready, 10000);
    CloseHandle(ready);
    CommPtr sp = CWiComm::NewObject(CWiComm::CLASSID_WITCP, ("C:0,127.0.0.1," + std::to_string(port)).c_str(),
                                    &client, nClientMode);
    if (sp)
        PumpUntil(client, 30000);
    if (sp)
        sp->Close();
    PostThreadMessageW(serverThread, WM_QUIT, 0, 0);
    window.join();
    bytes += client.bytes;
    return client.echoed;
}

}  // namespace

DemoRow MessageWindowEchoSection()
{
    DemoRow row;
    row.name = "message-window echo";
    std::printf("== CWiTcp listener and client on window threads, %d messages of %d bytes, plain then TLS\n",
                kMessages, kMessageSize);
    // TLS: SEALKIT_CERT, SEALKIT_KEY and SEALKIT_CA come from scripts/demo.
    if (!CWiComm::Startup()) {
        row.note = "Startup failed";
        return row;
    }
    ULONGLONG start = GetTickCount64();
    long plain = RunEcho(-1, -1, row.bytes);
    long tls = RunEcho(1, 0, row.bytes);
    row.seconds = (GetTickCount64() - start) / 1000.0;
    CWiComm::Cleanup();
    std::printf("  %-28s %ld of %d\n", "plain echoes", plain, kMessages);
    std::printf("  %-28s %ld of %d\n", "TLS echoes", tls, kMessages);
    row.connections = 2;
    row.messages = plain + tls;
    row.ok = plain == kMessages && tls == kMessages;
    row.note = "plain + TLS, one window thread each side";
    return row;
}
