// Objects are made only while the stack runs; clearing a send queue.
#include "comm_harness.h"

namespace {

TEST(RegistryStopped, NewObjectNeedsAStartedStack)
{
    WinsockScope winsock;
    WindowThread window;
    Recorder srv;
    CommPtr before, after;
    ASSERT_TRUE(window.Run([&] { before = CWiComm::NewObject(CWiComm::CLASSID_WITCP, "S:0", &srv, -1); }));
    EXPECT_FALSE(before) << "NewObject before Startup";
    ASSERT_EQ(1, CWiComm::Startup());
    EXPECT_EQ(1, CWiComm::Startup()) << "a second Startup does nothing";
    ASSERT_EQ(1, CWiComm::Cleanup());
    EXPECT_EQ(1, CWiComm::Cleanup()) << "a second Cleanup returns 1 at once";
    ASSERT_TRUE(window.Run([&] {
        after = CWiComm::NewObject(CWiComm::CLASSID_WITCP, ("S:" + std::to_string(FreeLoopbackPort())).c_str(),
                                   &srv, -1);
    }));
    EXPECT_FALSE(after) << "NewObject after Cleanup";
    EXPECT_EQ(0, SinkWindowsOfThisProcess()) << "no object, so no window, was made";
    EXPECT_TRUE(srv.Events().empty());
}

// The queue of a listener (which sends nothing): a clear keeps the blocks
// that continue a write already begun; a count without blocks stays.
TEST_F(WiCommTest, ClearSendBufferKeepsLeadingContinuationBlocks)
{
    listener = Listen(&srv);
    ASSERT_TRUE(listener);
    OnWindow([&] {
        for (auto block : std::vector<std::pair<int, int>>{{0, 10}, {0, 20}, {1, 40}, {0, 80}}) {
            TcpPeek::Queue(listener).push_back({block.first, new char[block.second], block.second, block.second});
            TcpPeek::QueuedBytes(listener) += block.second;
        }
        listener->ClearSendBuffer();
        EXPECT_EQ(2u, TcpPeek::Queue(listener).size());
        EXPECT_EQ(30u, TcpPeek::QueuedBytes(listener));
        TcpPeek::Queue(listener).clear();   // 30 bytes of blocks the test made
        TcpPeek::QueuedBytes(listener) = 7;
        listener->ClearSendBuffer();
        EXPECT_EQ(7u, TcpPeek::QueuedBytes(listener));
        TcpPeek::QueuedBytes(listener) = 0;
    });
}

}  // namespace
