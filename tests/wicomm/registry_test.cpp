// The registry: when objects may be made, when they are valid, when they die.
#include "comm_harness.h"

namespace {

// A bare CWiTcp in the registry, with the protected calls these tests need.
struct Probe : CWiTcp {
    Probe() : CWiTcp(-1) {}
    int CloseNotify(const CommPtr& sp) { return CallCloseNotify(sp); }
    void Delete() { BeforeDelete(); }
    void Queue(int bFirst, int nLength)
    {
        m_listSendBuffer.push_back({bFirst, new char[nLength], nLength, nLength});
        m_nSendBufferSize += nLength;
    }
    size_t QueuedBytes() const { return m_nSendBufferSize; }
    size_t Blocks() const { return m_listSendBuffer.size(); }
};

CommPtr MakeProbe(const std::function<void(Probe*)>& prepare = nullptr)
{
    std::shared_ptr<Probe> sp(new Probe);
    if (prepare)
        prepare(sp.get());
    CWiComm::AddCommToCommSet(sp);
    return sp;
}

class RegistryTest : public WiCommTest {};

TEST(RegistryStopped, NewObjectNeedsAStartedStack)
{
    WinsockScope winsock;
    WindowThread window;
    Recorder rec;
    CommPtr before, after;
    ASSERT_TRUE(window.Run([&] { before = CWiComm::NewObject(CWiComm::CLASSID_WITCP, "S:0", &rec, -1); }));
    EXPECT_FALSE(before) << "NewObject before Startup";
    ASSERT_EQ(1, CWiComm::Startup());
    EXPECT_EQ(1, CWiComm::Startup()) << "a second Startup does nothing";
    ASSERT_EQ(1, CWiComm::Cleanup());
    EXPECT_EQ(1, CWiComm::Cleanup()) << "a second Cleanup returns 1 at once";
    ASSERT_TRUE(window.Run([&] {
        after = CWiComm::NewObject(CWiComm::CLASSID_WITCP, ("S:" + std::to_string(FreeLoopbackPort())).c_str(),
                                   &rec, -1);
    }));
    EXPECT_FALSE(after) << "NewObject after Cleanup";
    EXPECT_EQ(0, SinkWindowsOf(window.ThreadId())) << "no object, so no window, was made";
    EXPECT_TRUE(rec.Events().empty());
}

TEST_F(RegistryTest, OnlyTheTcpClassNumberMakesAnObject)
{
    Recorder& rec = Rec();
    m_port = FreeLoopbackPort();
    const std::string option = "S:" + std::to_string(m_port);
    for (unsigned id : {0u, 1u, 3u, 7u}) {
        CommPtr sp;
        OnWindow([&] { sp = CWiComm::NewObject(id, option.c_str(), &rec, -1); });
        EXPECT_FALSE(sp) << "class number " << id;
    }
    EXPECT_EQ(0, SinkWindowsOf(m_window->ThreadId()));
    CommPtr sp = Make(option, &rec);
    ASSERT_TRUE(sp);
    EXPECT_EQ(CWiComm::CLASSID_WITCP, sp->GetClassID());
    EXPECT_TRUE(sp->IsKindOf(RUNTIME_CLASS(CWiTcp)));
    EXPECT_TRUE(sp->IsKindOf(RUNTIME_CLASS(CWiSocket)));
    EXPECT_STREQ("CWiTcp", sp->GetRuntimeClass()->m_lpszClassName);
    EXPECT_EQ(0xFFFFu, sp->GetRuntimeClass()->m_wSchema);
}

TEST_F(RegistryTest, ValidityEndsAtBeforeDeleteWhileTheObjectLives)
{
    EXPECT_EQ(0, CWiComm::IsValidObject(nullptr));
    int local = 0;
    EXPECT_EQ(0, CWiComm::IsValidObject(reinterpret_cast<CWiComm*>(&local)));
    Recorder& rec = Rec();
    CommPtr sp;
    OnWindow([&] { sp = MakeProbe(); });
    std::weak_ptr<CWiComm> weak = sp;
    EXPECT_EQ(1, CWiComm::IsValidObject(sp.get()));
    sp->SetNotifyObject(&rec);
    OnWindow([&] { static_cast<Probe*>(sp.get())->Delete(); });
    EXPECT_EQ(0, CWiComm::IsValidObject(sp.get())) << "after BeforeDelete";
    EXPECT_FALSE(weak.expired()) << "the dead registry keeps the object";
    EXPECT_EQ(1u, TcpPeek::DeadCount());
    OnWindow([&] { static_cast<Probe*>(sp.get())->Delete(); });   // a second run is harmless
    EXPECT_EQ(1u, TcpPeek::DeadCount());
    sp->SetNotifyObject(&rec);
    EXPECT_EQ(L"", std::wstring(sp->GetOpenOption()));
    EXPECT_EQ(1, sp->Close()) << "Close on a dead object";
    EXPECT_EQ(0, sp->IsOpen());
}

TEST_F(RegistryTest, ReapingStartsAboveTwoDeadEntriesOneAtATime)
{
    std::vector<std::weak_ptr<CWiComm>> dead;
    auto killOne = [&] {
        CommPtr sp;
        OnWindow([&] {
            sp = MakeProbe();
            static_cast<Probe*>(sp.get())->Delete();
        });
        dead.push_back(sp);
    };
    auto expired = [&] {
        int n = 0;
        for (auto& w : dead)
            n += w.expired() ? 1 : 0;
        return n;
    };
    killOne();
    killOne();
    ASSERT_EQ(2u, TcpPeek::DeadCount());
    CWiComm::AddCommToCommSet(nullptr);
    EXPECT_EQ(2u, TcpPeek::DeadCount()) << "two dead entries stay";
    EXPECT_EQ(0, expired());
    killOne();   // its own AddCommToCommSet ran with two dead entries
    ASSERT_EQ(3u, TcpPeek::DeadCount());
    CWiComm::AddCommToCommSet(nullptr);   // an empty pointer still reaps
    EXPECT_EQ(2u, TcpPeek::DeadCount()) << "exactly one of three is removed";
    EXPECT_EQ(1, expired()) << "the removed entry was the last reference";
    const size_t active = TcpPeek::ActiveCount();
    CWiComm::AddCommToCommSet(nullptr);
    EXPECT_EQ(active, TcpPeek::ActiveCount());
}

TEST_F(RegistryTest, TwoCloseNotifyCallsMakeOneOnClose)
{
    Recorder& rec = Rec();
    CommPtr sp;
    OnWindow([&] { sp = MakeProbe([&](Probe* p) { p->SetNotifyObject(&rec); }); });
    sp->SetNotifyObject(&rec);
    Probe* p = static_cast<Probe*>(sp.get());
    int first = 0, second = 0;
    OnWindow([&] {
        first = p->CloseNotify(sp);
        second = p->CloseNotify(sp);
    });
    EXPECT_EQ(1, first);
    EXPECT_EQ(1, second) << "the second call still returns the validity";
    EXPECT_EQ(1, rec.Count("close"));
    // OnClose that closes its own object: the call reports it dead.
    Recorder& rec2 = Rec();
    CommPtr sp2;
    OnWindow([&] { sp2 = MakeProbe(); });
    sp2->SetNotifyObject(&rec2);
    rec2.onClose = [](CommPtr c) { static_cast<Probe*>(c.get())->Delete(); };
    int result = -1;
    OnWindow([&] { result = static_cast<Probe*>(sp2.get())->CloseNotify(sp2); });
    EXPECT_EQ(0, result);
}

TEST_F(RegistryTest, ClearSendBufferKeepsLeadingContinuationBlocks)
{
    CommPtr sp;
    OnWindow([&] {
        sp = MakeProbe([](Probe* p) {
            p->Queue(0, 10);
            p->Queue(0, 20);
            p->Queue(1, 40);
            p->Queue(0, 80);
        });
    });
    Probe* p = static_cast<Probe*>(sp.get());
    p->ClearSendBuffer();
    EXPECT_EQ(2u, p->Blocks());
    EXPECT_EQ(30u, p->QueuedBytes());
    CommPtr empty;
    OnWindow([&] { empty = MakeProbe(); });
    TcpPeek::QueuedBytes(empty) = 7;   // a count with no blocks stays as it is
    empty->ClearSendBuffer();
    EXPECT_EQ(7u, TcpPeek::QueuedBytes(empty));
    TcpPeek::QueuedBytes(empty) = 0;
}

}  // namespace
