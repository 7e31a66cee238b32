// Closing: from the window thread, from another thread, twice, inside
// OnClose, while connecting, and on a listener.
#include <thread>

#include "comm_harness.h"

namespace {

class CloseTest : public WiCommTest {};

// The peer's side of it: FD_CLOSE gives OnClose and the object stays valid
// (a peer close only informs) until the application closes it inside OnClose.
TEST_F(CloseTest, OnTheWindowThreadTheTeardownIsDoneWhenCloseReturns)
{
    Pair();
    std::vector<int> validity;   // of the accepted object in its OnClose: before and after its Close
    srv.onClose = [&](CommPtr sp) {
        validity.push_back(CWiComm::IsValidObject(sp.get()));
        sp->Close();
        validity.push_back(CWiComm::IsValidObject(sp.get()));
    };
    int result = 0, valid = -1;
    OnWindow([&] {
        result = client->Close();
        valid = CWiComm::IsValidObject(client.get());
    });
    EXPECT_EQ(1, result);
    EXPECT_EQ(0, valid);
    EXPECT_EQ(std::vector<std::string>({"open", "close"}), cli.Kinds(client.get()));
    EXPECT_EQ(INVALID_SOCKET, TcpPeek::Socket(client));
    EXPECT_EQ(NULL, TcpPeek::Window(client));
    OnWindow([&] { result = client->Close(); });
    EXPECT_EQ(1, result) << "a second Close";
    EXPECT_EQ(1, cli.Count("close"));
    EXPECT_EQ(0, client->Write("x", 1)) << "Write on a closed object";
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Count("close", accepted.get()) == 1; }, "peer OnClose"));
    OnWindow([] {});
    EXPECT_EQ(std::vector<int>({1, 0}), validity);
    EXPECT_EQ(1, srv.Count("close", accepted.get()));
    EXPECT_EQ(INVALID_SOCKET, TcpPeek::Socket(accepted));
}

TEST_F(CloseTest, FromAnotherThreadCloseOnlyAsks)
{
    Pair();
    EXPECT_EQ(1, client->Close());
    EXPECT_EQ(1, client->Close()) << "twice from another thread";
    ASSERT_TRUE(cli.WaitFor([&] { return cli.Count("close") == 1; }, "OnClose on the window thread"));
    EXPECT_EQ(m_window->ThreadId(), cli.Events().back().nThread);
    OnWindow([] {});   // both posted closes have been handled
    EXPECT_EQ(0, CWiComm::IsValidObject(client.get())) << "the client is dead after its close was handled";
    EXPECT_EQ(1, cli.Count("close"));
}

// A posted close for another socket handle, or with another code, is ignored.
TEST_F(CloseTest, ClosingAListenerLeavesAcceptedObjectsWorking)
{
    Pair();
    OnWindow([&] { SendMessageW(TcpPeek::Window(client), WM_WISOCKET_CLOSE, (WPARAM)12345, 32); });
    OnWindow([&] { SendMessageW(TcpPeek::Window(client), WM_WISOCKET_CLOSE, (WPARAM)TcpPeek::Socket(client), 31); });
    EXPECT_EQ(1, CWiComm::IsValidObject(client.get()));
    OnWindow([&] { listener->Close(); });
    EXPECT_EQ(1, srv.Count("close", listener.get()));
    EXPECT_EQ(0, CWiComm::IsValidObject(listener.get()));
    EXPECT_EQ(1, CWiComm::IsValidObject(accepted.get()));
    ASSERT_EQ(1, client->Write("ping", 4));
    ASSERT_TRUE(srv.WaitFor([&] { return srv.Data(accepted.get()) == "ping"; }, "data after the listener closed"));
    EXPECT_EQ(0, cli.Count("close"));
}

// Cleanup on an application thread while a window thread is inside a
// delivery: the objects are released by their own window threads, so Cleanup
// returns only after the delivery. The delivery waits 2 s for Cleanup to return.
TEST_F(CloseTest, CleanupFromAnotherThreadWaitsTwoSecondsForADeliveryToEnd)
{
    for (int nMode : {-1, 1}) {
        SCOPED_TRACE(nMode == 1 ? "TLS" : "plain");
        if (nMode == 1)
            OnWindow([] { ASSERT_EQ(1, CWiComm::Startup()); });
        Pair(nMode, nMode == 1 ? 0 : -1);
        TestEvent inDelivery, cleanupReturned;
        std::atomic<bool> returnedUnderDelivery(false);
        cli.onRead = [&](const void*, int, CommPtr spComm) {
            inDelivery.Set();
            spComm->Write("more", 4);
            if (cleanupReturned.Wait("Cleanup (expected to wait)", std::chrono::seconds(2)))
                returnedUnderDelivery = true;
            spComm->Write("more", 4);
        };
        accepted->Write("x", 1);
        ASSERT_TRUE(inDelivery.Wait("OnReadComplete of the client"));
        std::thread stopper([&] {
            CWiComm::Cleanup();
            cleanupReturned.Set();
        });
        EXPECT_TRUE(cleanupReturned.Wait("Cleanup from an application thread", std::chrono::seconds(15)));
        stopper.join();
        EXPECT_FALSE(returnedUnderDelivery) << "Cleanup returned while the window thread was inside OnReadComplete";
        EXPECT_EQ(0, CWiComm::IsValidObject(client.get()));
        EXPECT_EQ(INVALID_SOCKET, TcpPeek::Socket(client));
        EXPECT_EQ(INVALID_SOCKET, TcpPeek::Socket(accepted));
        EXPECT_EQ(0, cli.Count("close")) << "Cleanup notifies nothing";
        cli.onRead = nullptr;
        client.reset();
        accepted.reset();
        listener.reset();
    }
}

}  // namespace
