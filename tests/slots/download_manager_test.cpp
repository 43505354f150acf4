#include <gtest/gtest.h>

#include "slots/EngineHarness.h"

namespace quorvel::engine {
namespace {

using test::EngineHarness;

TEST(DownloadManagerTest, AddWorkerFillsBoundRowsAndSharesTheIndexOfAnUnfilledRow) {
    EngineHarness h(0);
    auto& st = h.st;
    st.bindings.SetState(0, app::BindState::AllBinded);
    st.bindings.SetComName(0, "Diag (COM3)");
    st.bindings.SetState(1, app::BindState::PreloaderBinded);
    auto& manager = *h.manager;
    app::HubPortEntry entry{};
    for (int i = 0; i < 4; ++i) manager.AddWorker(entry);
    ASSERT_EQ(st.slotList.RowCount(), 2);
    EXPECT_EQ(st.slotList.CellText(0, app::COL_NUMBER), "01");
    EXPECT_EQ(st.slotList.CellText(0, app::COL_DEVICE), "Diag (COM3)");
    EXPECT_EQ(st.slotList.Row(0).cells[app::COL_DEVICE].colour, kColourGrey);
    EXPECT_FALSE(st.slotList.Row(0).progress.visible);  // no empty bar that reads as a job at 0 %
    EXPECT_EQ(st.slotList.CellText(1, app::COL_BINDED), "PRELOADER_BINDED");
    EXPECT_EQ(manager.WorkerAt(2)->ThreadIndex(), 2);
    EXPECT_EQ(manager.WorkerAt(3)->ThreadIndex(), 2);
    EXPECT_TRUE(st.slots.rowShown[1]);
    EXPECT_FALSE(st.slots.rowShown[2]);
    EXPECT_EQ(manager.WorkerAt(4), nullptr);
    manager.RemoveAllWorkers();
    EXPECT_EQ(st.slotList.RowCount(), 0);
    EXPECT_EQ(manager.WorkerAt(0), nullptr);
}

TEST(DownloadManagerTest, StartUpPickupByHubPort) {
    EngineHarness h(8);  // hub ids hub0, hub1; ports 1..4
    app::DeviceInfo d = h.Device(app::EventKind::MTK, "Same (COM9)", "x");
    d.hubPort.hubId = "hub1";
    d.hubPort.port = 2;
    h.loop.Call([&] { h.manager->AcceptDeviceByHubPort(d); });
    EXPECT_EQ(h.manager->WorkerAt(5)->ThreadIndex(), 5);
    d.hubPort.port = 9;  // no such port: ignored
    h.loop.Call([&] { h.manager->AcceptDeviceByHubPort(d); });
    for (int i = 0; i < 8; ++i) EXPECT_EQ(h.manager->WorkerAt(i)->LastNotifyCode(), i == 5 ? 2u : 0u) << i;
}

TEST(DownloadManagerTest, StopIsRefusedWhileASlotWorks) {
    EngineHarness h(3);
    h.StartStation();
    EXPECT_EQ(h.manager->State(), ManagerState::Running);
    for (auto state : {app::BindState::Busy, app::BindState::BromBinded, app::BindState::DaBinded}) {
        h.st.bindings.SetState(1, state);
        bool stopped = true;
        h.loop.Call([&] { stopped = h.manager->StopAll(); });
        EXPECT_FALSE(stopped);
        EXPECT_EQ(h.manager->State(), ManagerState::Running);
    }
    h.st.bindings.SetState(1, app::BindState::AllBinded);
    bool stopped = false;
    h.loop.Call([&] { stopped = h.manager->StopAll(); });
    EXPECT_TRUE(stopped);
    EXPECT_EQ(h.manager->State(), ManagerState::Stopped);
    ASSERT_TRUE(h.RunUntil([&] { return h.RunningWorkers() == 0; }));
    EXPECT_EQ(h.st.slotList.CellText(0, app::COL_DEVICE), "Phone (COM1)");  // the thread's "no device"
}

TEST(DownloadManagerTest, StartWalkIsSpacedAndEndsOnStop) {
    EngineHarness h(4);
    h.manager->SetState(ManagerState::Ready);
    const auto t0 = h.fx.clock.Now();
    h.loop.Call([&] { h.manager->StartAll(); });
    ASSERT_TRUE(h.RunUntil([&] { return h.manager->WorkerAt(1)->IsRunning(); }));
    EXPECT_EQ(h.fx.clock.Now() - t0, 110);  // 10 ms after a worker's Start, then 100 ms
    EXPECT_FALSE(h.manager->WorkerAt(2)->IsRunning());
    h.loop.Call([&] { h.manager->StopAll(); });
    h.fx.clock.Advance(1000);
    h.Settle();
    EXPECT_FALSE(h.manager->WorkerAt(2)->IsRunning() || h.manager->WorkerAt(3)->IsRunning());
    // StartAll outside Ready starts nothing.
    h.loop.Call([&] { h.manager->StartAll(); });
    h.Settle();
    EXPECT_EQ(h.manager->State(), ManagerState::Stopped);
}

TEST(DownloadManagerTest, VerifyPackageReportsEachFileThenTheVerdictAndCloses) {
    for (bool passes : {true, false}) {
        SCOPED_TRACE(passes ? "passes" : "fails");
        EngineHarness h(1);
        h.registry.SetVerifyPasses(passes);
        h.fx.dir.Write("fw/scatter.txt", "x");
        h.fx.dir.Write("fw/boot.img", "abc");
        h.fx.dir.Write("fw/CheckSum.ini", "");
        h.st.package.scatterFilePath = h.fx.dir.File("fw/scatter.txt");
        auto window = std::make_shared<test::ChecksumWindow>();
        h.manager->VerifyPackage(window);
        ASSERT_TRUE(h.RunUntil([&] { return !window->Seen().empty() && window->Seen().back() == "16"; }));  // the close
        const auto m = window->Seen();
        ASSERT_EQ(m.size(), 8u);  // two files, three reports each, the verdict, the close
        EXPECT_NE(m[0].find("boot.img"), std::string::npos);
        EXPECT_NE(m[3].find("scatter.txt"), std::string::npos);
        EXPECT_EQ(m[6], passes ? "passed" : "failed");
    }
}

}  // namespace
}  // namespace quorvel::engine
