// After Cleanup nothing of the stack remains: no window, no socket handle,
// no heap block, whether the objects were closed or left open.
#include <malloc.h>

#include "comm_harness.h"
#include "support/test_pki.h"
#include "support/leak.h"

namespace {

// Busy blocks of the C run-time heap, where new[] of the stack allocates.
long CrtHeapBusyBlocks() { return HeapBusyBlocks((HANDLE)_get_heap_handle()); }

// One round: listener, plain and TLS connections with data queued and held,
// some closed and some left open for Cleanup.
void Round(WindowThread& first, WindowThread& second, Recorder& srv, Recorder& cli, bool closeFirst)
{
    ASSERT_EQ(1, CWiComm::Startup());
    unsigned short port = FreeLoopbackPort();
    CommPtr listener, plain, tls;
    std::string listen = "S:" + std::to_string(port), connect = "C:0,127.0.0.1," + std::to_string(port);
    ASSERT_TRUE(first.Run([&] { listener = CWiComm::NewObject(2, listen.c_str(), &srv, 1); }));
    ASSERT_TRUE(second.Run([&] { tls = CWiComm::NewObject(2, connect.c_str(), &cli, 0); }));
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Count("open") == 1; }, "TLS client open"));
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("open") == 2; }, "TLS accepted"));
    std::vector<char> data = Pattern(20000, 9);
    tls->Write(data.data(), (unsigned long)data.size());
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("read") > 0; }, "TLS data"));
    unsigned short port2 = FreeLoopbackPort();
    CommPtr plainListener;
    std::string listen2 = "S:" + std::to_string(port2), connect2 = "C:0,127.0.0.1," + std::to_string(port2);
    ASSERT_TRUE(first.Run([&] { plainListener = CWiComm::NewObject(2, listen2.c_str(), &srv, -1); }));
    ASSERT_TRUE(second.Run([&] { plain = CWiComm::NewObject(2, connect2.c_str(), &cli, -1); }));
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Count("open") == 2; }, "plain client open"));
    plain->SetTimeouts(0, 5000, 0, 0);
    plain->Write(data.data(), (unsigned long)data.size());
    if (closeFirst) {
        ASSERT_TRUE(second.Run([&] { plain->Close(); tls->Close(); }));
        ASSERT_TRUE(first.Run([&] { listener->Close(); }));
    }
    srv.Forget();
    listener.reset();
    plain.reset();
    tls.reset();
    plainListener.reset();
    ASSERT_TRUE(first.Run([] { CWiComm::Cleanup(); }));
    ASSERT_TRUE(second.Run([] {}));   // windows of this thread close here
}

TEST(WiCommLeaks, AfterCleanupNoWindowSocketOrHeapBlockRemains)
{
    WinsockScope winsock;
    UseTestCertificates();
    WindowThread first, second;
    for (bool closeFirst : {true, false}) {   // warms up the run time, Winsock, TLS and per-thread caches
        Recorder srv, cli;
        Round(first, second, srv, cli, closeFirst);
    }
    const long handles = ProcessHandleCount();
    // Per-thread caches of the run time and the TLS library come and go, so
    // the heap is compared between rounds: a leak grows with every round.
    std::vector<long> heapAfterRound;
    for (bool closeFirst : {true, false, true, false}) {
        Recorder srv, cli;
        Round(first, second, srv, cli, closeFirst);
        EXPECT_EQ(0, SinkWindowsOf(first.ThreadId())) << (closeFirst ? "closed" : "left open");
        EXPECT_EQ(0, SinkWindowsOf(second.ThreadId())) << (closeFirst ? "closed" : "left open");
        EXPECT_TRUE(Eventually([&] { return ProcessHandleCount() <= handles; }, "handles back"))
            << ProcessHandleCount() << " handles, baseline " << handles;
        heapAfterRound.push_back(CrtHeapBusyBlocks());
    }
    // A leak of the stack's own blocks grows by tens a round; a few blocks of
    // the run time's caches come and go between rounds (5 were seen once).
    const long grown = heapAfterRound[3] - heapAfterRound[1];
    EXPECT_LE(grown, 8) << "heap blocks after rounds 2 and 4: " << heapAfterRound[1] << ", " << heapAfterRound[3]
                        << " (each round makes about 60 blocks of the stack)";
}

}  // namespace
