#include <gtest/gtest.h>

#include <utility>

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
// saved bindings and the no-package notice's text are played as scenario files.
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

    // The engine refuses the package's pre-load: the console says so.
    f.dir.Write("fw/A_scatter.txt", "");
    EXPECT_EQ(controller.PreLoadPackage(), engine::kPreLoadRefused);
    EXPECT_EQ(f.ui.Messages(), std::vector<std::string>{"PreLoadFiles failed,please check scatter file or DA files"});
}

TEST_F(StationRunTest, PhonesAlreadyInPreloaderModeGoToTheWorkerOfTheirPort) {
    ASSERT_TRUE(bench.Plug(2, sim::PhoneKind::MTK_PRELOADER, {}));
    run.BuildSlots();
    ASSERT_EQ(run.HubPorts().size(), 4u);
    EXPECT_EQ(run.Manager().WorkerAt(2)->Device().friendlyName, bench.FriendlyNameAt(2));
    EXPECT_EQ(run.Manager().WorkerAt(0)->Device().friendlyName, "");
}

// Runs a test's hook on the worker thread one step before its job begins. A job passes
// unless cancelled after its set-up.
class HookedMtk final : public engine::MtkEngine {
public:
    void SetDLPara(int, int, int, int, int, int, int, int, const char*, const char*, const char*, int, int,
                   int) override {}
    void SetMemoryTestPara(int, int, int, int, int) override {}
    void SetEfusePara(int, const char*, int, const char*, const char*, const char*) override {}
    void SetDAPort(int) override {}
    void SetDownloadType(int) override {}
    void SetDeviceInfo(DeviceInfo*) override {
        cancelled = false;  // as the engines do: a cancel belongs to one job
        if (beforeJob) std::exchange(beforeJob, nullptr)();
    }
    int DLOperationStart() override {
        ++jobs;
        return cancelled.exchange(false) ? 1 : 0;
    }
    void CancelTask() override { cancelled = true; }
    int GetPCLoadVersion(char* b) override { return *b = '\0', 0; }
    void GetVersionInfo(VersionInfo*) override {}
    int PreLoadFiles(char*, bool, int, int, SpmtkEfuseInfo, bool) override { return 0; }
    int VerifyHostBufferBeforeStart(const char*) override { return 1; }
    void SetChkSumWnd(app::MessageWindow*) override {}

    std::function<void()> beforeJob;
    std::atomic<int> jobs{0};
    std::atomic<bool> cancelled{false};
};

// A Stop one step before the job begins keeps it from beginning; the phone is served
// after the next Start.
TEST(StationRunJobs, AStopJustBeforeTheJobKeepsItFromBeginning) {
    test::EngineHarness h(1, {.mtk = [] { return std::make_unique<HookedMtk>(); }});
    auto& mtk = static_cast<HookedMtk&>(h.manager->WorkerAt(0)->Mtk());
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
