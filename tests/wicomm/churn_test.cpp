// Many connections ended every way at once, plain and TLS: the peer closes
// (with or without the TLS close alert) or resets, another application thread
// writes, sets time-outs and closes, and the window thread closes inside
// OnReadComplete and OnClose. Every object that opened gets exactly one
// OnClose (and the fixture checks that nothing is left after Cleanup).
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <deque>
#include <map>
#include <thread>

#include "comm_harness.h"
#include "support/app_thread.h"
#include "support/leak.h"

namespace {

class ChurnTest : public WiCommTest {};

// Peers on two threads: each connects, sends a message and goes, one in
// four with a reset, one in four (TLS) after the close alert.
void RunPeers(unsigned short port, bool tls, int connections)
{
    std::atomic<int> next(0);
    auto peer = [&] {
        for (int i = next++; i < connections; i = next++) {
            SOCKET s = ConnectLoopback(port);
            if (s == INVALID_SOCKET)
                continue;
            HSSL hSSL = tls ? OPENSSL_connect(s) : 0;
            std::string message = "message " + std::to_string(i);
            if (hSSL != 0)
                OPENSSL_write(hSSL, message.data(), (int)message.size());
            else if (!tls)
                send(s, message.data(), (int)message.size(), 0);
            if (i % 4 == 0) {
                linger l = {1, 0};
                setsockopt(s, SOL_SOCKET, SO_LINGER, (const char*)&l, sizeof(l));
            } else if (hSSL != 0 && i % 4 == 1) {
                OPENSSL_shutdown(hSSL);
                hSSL = 0;
            }
            closesocket(s);
            if (hSSL != 0)
                OPENSSL_shutdown(hSSL);
        }
    };
    std::thread a(peer), b(peer);
    a.join();
    b.join();
}

// Every object that opened has closed, once: per address, no open follows
// an open without a close between (an object whose peer was gone before it
// could open closes without opening).
bool EveryOpenClosedOnce(const Recorder& srv, CWiComm* pListener)
{
    std::map<CWiComm*, bool> open;
    for (const CommEvent& e : srv.Events()) {
        if (e.pComm == pListener || (e.kind != "open" && e.kind != "close"))
            continue;
        if (e.kind == "open" && open[e.pComm])
            return false;
        open[e.pComm] = e.kind == "open";
    }
    for (auto& entry : open)
        if (entry.second)
            return false;
    return true;
}

// Busy blocks of the C run-time heap, where the stack allocates.
long CrtHeapBusyBlocks() { return HeapBusyBlocks((HANDLE)_get_heap_handle()); }

int ChurnConnections()
{
    const char* count = std::getenv("WISOCK_CHURN_CONNECTIONS");
    return count != nullptr ? std::atoi(count) : 200;
}

}  // namespace

TEST_F(ChurnTest, EveryEndingGivesOneOnCloseAndCleanupLeavesNothing)
{
    std::vector<long> heapAfterRound;
    for (int mode : {-1, 1, -1, 1}) {
        Recorder& srv = Rec();
        AppThread app;
        std::atomic<int> opened(0);
        srv.onOpen = [&](CommPtr sp) {
            if (Narrow(sp->GetOpenOption()).find("C:") == 0) {
                // Another application thread writes, sets time-outs and closes one in three.
                app.Post([sp, n = opened++] {
                    sp->Write("from another thread", 19);
                    sp->SetTimeouts(n % 2 ? 50 : 0, 0, 0, 512);
                    if (n % 3 == 0)
                        sp->Close();
                });
            }
        };
        srv.onRead = [&](const void*, int, CommPtr sp) {
            if (opened % 5 == 2)
                sp->Close();   // on the window thread, inside the delivery
        };
        srv.onClose = [](CommPtr sp) { sp->Close(); };   // the application ends what its peer ended
        listener = Listen(&srv, mode);
        ASSERT_TRUE(listener);
        RunPeers(m_port, mode == 1, ChurnConnections());
        EXPECT_TRUE(srv.WaitFor([&] { return EveryOpenClosedOnce(srv, listener.get()); },
                                "one OnClose for every object that opened, mode " + std::to_string(mode),
                                std::chrono::seconds(20)));
        OnWindow([&] { listener->Close(); });
        listener.reset();
        srv.Forget();
        heapAfterRound.push_back(CrtHeapBusyBlocks());
    }
    // Caches of the run time and the TLS library come and go, so rounds of
    // the same kind are compared: the stack's own blocks would grow by
    // hundreds a round (one or more an object).
    EXPECT_LE(heapAfterRound[3] - heapAfterRound[1], 40) << "C run-time heap blocks after the second and fourth round";
}
