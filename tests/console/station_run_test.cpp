#include <gtest/gtest.h>

#include "console/ConsoleController.h"
#include "console/StationRun.h"
#include "devices/DeviceTestKit.h"
#include "engine/SimEngines.h"
#include "platform/ProfileIni.h"
#include "sim/SimBench.h"
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
        f.dir.Write("fw/phone.cfg", "x");
        f.WriteSettings(test::UnboundSettings("LANGUAGE=2052\nFilePath=" + f.dir.File("fw/A_scatter.txt") + "\n"));
        ASSERT_TRUE(controller.OnInitDialog());
        run.SetSleepInhibitor(&sleep);
    }
    void Click() { run.StartStopClick(); }
    std::vector<std::string> Messages() { return f.ui.Messages(); }

    test::StationFixture f;
    Station& st = *f.station;
    test::ClockDriver driver{f.clock};
    platform::StationLoop loop{f.clock};
    ConsoleController controller{st, loop};
    engine::SimPhoneRegistry registry;
    engine::SimEngineFactory engines{st, registry};
    sim::SimBench bench{1, 4, registry, f.clock};
    StationRun run{st, loop, controller, bench, engines};
    struct : platform::SleepInhibitor {
        void Hold(bool on) override { held.push_back(on); }
        std::vector<bool> held;
    } sleep;
};

TEST_F(StationRunTest, ScatterPackageIsVerifiedOnceAndStopIsRefusedWhileASlotWorks) {
    EXPECT_EQ(run.Manager().WorkerCount(), 4);
    ASSERT_EQ(st.settings.CheckSum, 1u);
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_TRUE(st.stationRunning);
    EXPECT_TRUE(st.package.verified);
    EXPECT_FALSE(st.view.Snapshot().controls[IDC_SETTINGS].enabled);

    st.slotList.InsertRow("01");
    st.bindings.SetState(0, BIND_BROM_BINDED);
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_EQ(Messages(), std::vector<std::string>{"At least one thread is running, Please wait for a moment!"});
    EXPECT_EQ(sleep.held, std::vector<bool>{true});  // no suspend while a phone is flashed

    st.bindings.SetState(0, BIND_ALL_BINDED);
    st.bindings.SetHsLocation(0, "1-1\\PORT1");
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_START);
    EXPECT_FALSE(st.stationRunning);
    EXPECT_TRUE(st.view.Snapshot().controls[IDC_SETTINGS].enabled);
    EXPECT_EQ(platform::ProfileIni::ReadString(f.SettingsFile(), "USBPORTINFO", "Index0", "?", 64), "1-1\\PORT1");
    EXPECT_EQ(sleep.held, (std::vector<bool>{true, false}));

    // Verified once: a second Start does not verify again, even if it would fail now.
    registry.SetVerifyPasses(false);
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_STOP);
    Click();
    run.Manager().JoinWalks();
}

TEST_F(StationRunTest, MissingFileOrFailedVerificationRefusesStartAndNoPackageStartsWithANotice) {
    const struct {
        std::int32_t kind;
        std::string* path;
        const char* message;
    } refusals[] = {
        {PACKAGE_MTK_CFG, &st.package.cfgFilePath, "Please select MTK CFG file first!"},
        {PACKAGE_SPRD_PAC, &st.package.pacFilePath, "Please select SPRD pac file first!"},
    };
    for (const auto& r : refusals) {
        SCOPED_TRACE(r.kind);
        f.ui.Clear();
        st.package.kind = r.kind;
        if (r.path) *r.path = f.dir.File("fw/gone");
        Click();
        EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_INIT);
        EXPECT_FALSE(st.stationRunning);
        EXPECT_EQ(Messages(), std::vector<std::string>{r.message});
    }
    EXPECT_TRUE(sleep.held.empty());

    st.package.kind = PACKAGE_MTK_SCATTER;
    registry.SetVerifyPasses(false);
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_INIT);
    EXPECT_FALSE(st.stationRunning);
    EXPECT_FALSE(st.package.verified);
    EXPECT_EQ(run.Manager().State(), engine::Unverified);

    // Without a package the run starts, as asked, and the notice says why nothing is
    // flashed, until a Start with a package.
    f.ui.Clear();
    st.package.kind = PACKAGE_NONE;
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_TRUE(Messages().empty());
    EXPECT_EQ(st.view.Notice(), "No package selected: phones are bound, but there is nothing to download to them. "
                                "Stop, choose a package in Settings and start again.");
    Click();
    st.package.kind = PACKAGE_MTK_SCATTER;
    registry.SetVerifyPasses(true);
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_EQ(st.view.Notice(), "");
    Click();
    run.Manager().JoinWalks();
}

TEST_F(StationRunTest, CfgStopWaitsForRunningJobsAndEndsFinishedOnes) {
    st.package.kind = PACKAGE_MTK_CFG;
    st.package.cfgFilePath = f.dir.File("fw/phone.cfg");
    Click();
    ASSERT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_EQ(run.Monitor().MonitorService(), 3);

    st.slotList.InsertRow("01");
    st.slotList.InsertRow("02");
    st.slots.fpJob[0] = 2;
    st.bindings.SetState(0, BIND_BUSY);
    st.slots.fpJob[1] = 1;
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_EQ(Messages().size(), 1u);
    // Slot 0 was passed before the refusal: its finished job is cleared and it is no longer busy.
    EXPECT_EQ(st.slots.fpJob[0], 0);
    EXPECT_EQ(st.bindings.State(0), BIND_ALL_BINDED);

    // A slot BUSY whose job is not marked running yet is a job starting: not released.
    st.slotList.InsertRow("03");
    st.slots.fpJob[1] = 2;
    st.bindings.SetState(2, BIND_BUSY);
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_EQ(st.bindings.State(2), BIND_BUSY);

    st.slots.fpJob[2] = 2;
    Click();
    EXPECT_EQ(controller.ButtonStatus(), DOWNLOAD_BUTTON_STATUS_START);
    EXPECT_EQ(st.bindings.State(2), BIND_ALL_BINDED);
    run.Manager().JoinWalks();
}

TEST_F(StationRunTest, PhonesAlreadyInPreloaderModeGoToTheWorkerOfTheirPort) {
    ASSERT_TRUE(bench.Plug(2, sim::PhoneKind::MTK_PRELOADER, {}));
    run.BuildSlots();
    ASSERT_EQ(run.HubPorts().size(), 4u);
    EXPECT_EQ(FieldText(run.Manager().WorkerAt(2)->Device().friendlyName), bench.FriendlyNameAt(2));
    EXPECT_EQ(FieldText(run.Manager().WorkerAt(0)->Device().friendlyName), "");
}

}  // namespace
}  // namespace quorvel::console
