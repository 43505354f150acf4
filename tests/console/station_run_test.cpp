#include <gtest/gtest.h>

#include "console/ConsoleController.h"
#include "console/StationRun.h"
#include "devices/DeviceTestKit.h"
#include "sim/SimBench.h"
#include "sim/SimEngines.h"
#include "slots/EngineHarness.h"
#include "support/StationFixture.h"

namespace quorvel::console {
namespace {

using namespace app;

// The Start/Stop state machine and the pre-start check, driven on the test thread in
// virtual time (the station loop is not running, so nothing else runs handlers).
class StationRunTest : public ::testing::Test {
protected:
    void SetUp() override {
        f.dir.Write("fw/A_scatter.txt", "x");
        f.WriteSettings(test::UnboundSettings("LANGUAGE=2052\nFilePath=" + f.dir.File("fw/A_scatter.txt") + "\n"));
        ASSERT_TRUE(controller.OnInitDialog());
        run.SetSleepInhibitor(&sleep);
    }
    void Click() { run.StartStopClick(); }

    test::StationFixture f;
    Station& st = *f.station;
    test::ClockDriver driver{f.clock};
    app::StationLoop loop{f.clock};
    ConsoleController controller{st, loop, f.ui};
    engine::SimPhoneRegistry registry;
    engine::SimEngineFactory engines{st, registry};
    sim::SimBench bench{1, 4, registry, f.clock};
    StationRun run{st, loop, controller, bench, engines};
    struct : platform::SleepInhibitor {
        void Hold(bool on) override { held.push_back(on); }
        std::vector<bool> held;
    } sleep;
};

// Verification, the controls and the sleep hold around Start and Stop; stop refusals,
// saved bindings, the no-package notice's text and a refused pre-load are played as scenario
// files.
TEST_F(StationRunTest, VerifiedAtTheFirstStartOnlyAndSleepIsHeldWhileRunning) {
    const auto button = [&] { return controller.ButtonStatus(); };
    registry.SetVerifyPasses(false);
    Click();
    EXPECT_EQ(button(), DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_INIT);
    EXPECT_FALSE(st.stationRunning);
    EXPECT_FALSE(st.package.verified);
    EXPECT_EQ(run.Manager().State(), engine::ManagerState::Unverified);
    EXPECT_TRUE(sleep.held.empty());

    registry.SetVerifyPasses(true);
    Click();
    EXPECT_EQ(button(), DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_TRUE(st.package.verified);
    EXPECT_FALSE(st.view.Snapshot().controls[IDC_SETTINGS].enabled);
    Click();
    EXPECT_EQ(button(), DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_START);
    EXPECT_TRUE(st.view.Snapshot().controls[IDC_SETTINGS].enabled);
    EXPECT_EQ(sleep.held, (std::vector<bool>{true, false}));

    // Not verified again, even where it would fail now.
    registry.SetVerifyPasses(false);
    Click();
    EXPECT_EQ(button(), DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP);
    Click();

    // A package chosen after a Start without one takes that Start's notice away.
    st.package.kind = PackageKind::None;
    Click();
    EXPECT_NE(st.view.Notice(), "");
    Click();
    st.package.kind = PackageKind::MtkScatter;
    Click();
    EXPECT_EQ(st.view.Notice(), "");
    Click();
    run.Manager().JoinWalks();
}

TEST_F(StationRunTest, PhonesAlreadyInPreloaderModeGoToTheWorkerOfTheirPort) {
    ASSERT_TRUE(bench.Plug(2, sim::PhoneKind::MTK_PRELOADER, {}));
    run.BuildSlots();
    ASSERT_EQ(run.HubPorts().size(), 4u);
    EXPECT_EQ(run.Manager().WorkerAt(2)->Device().friendlyName, bench.FriendlyNameAt(2));
    EXPECT_EQ(run.Manager().WorkerAt(0)->Device().friendlyName, "");
}

// A Stop one step before the job begins keeps it from beginning; the phone is served
// after the next Start.
TEST(StationRunJobs, AStopJustBeforeTheJobKeepsItFromBeginning) {
    test::EngineHarness h(1, test::RecordingMtk::Swap());
    auto& mtk = test::RecordingMtk::Of(h, 0);
    devices::ComProbe probe(h.fx.clock, [](int) { return std::string(); });
    devices::PortBinding binding(h.st, *h.manager, probe, h.loop);
    bool accepted = false;
    h.st.bindings.SetHsLocation(0, "NA");
    h.st.bindings.SetLsLocation(0, "NA");
    h.st.bindings.SetState(0, BindState::Idle);

    h.StartStation();
    mtk.beforeJob = [&] { h.loop.Call([&] { accepted = h.manager->StopAll(); }); };
    h.loop.PostTask([&] {
        binding.OnDeviceEvent(DeviceEvent{"USB\\VID_0E8D&PID_2000\\1-1.8:1.0", "MTK PreLoader (COM8)", EventKind::MTK,
                                          true, "1-1\\PORT8"});
    });
    ASSERT_TRUE(h.RunUntil([&] { return h.RunningWorkers() == 0; }));
    EXPECT_TRUE(accepted);
    EXPECT_EQ(mtk.jobs.load(), 0);
    EXPECT_EQ(h.State(0), BindState::PreloaderBinded);
    h.StartStation();
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 1; }));
    EXPECT_EQ(mtk.jobs.load(), 1);
    EXPECT_EQ(h.Fail(), 0u);
}

}  // namespace
}  // namespace quorvel::console
