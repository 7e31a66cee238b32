// Objects are made only while the stack runs.
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

}  // namespace
