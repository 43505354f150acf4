// A whole station, headless, on the simulated bench: the monitor, binding, the
// workers with simulated engines, the counters and the settings file.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "station/Messages.h"
#include "station/Station.h"
#include "console/ConsoleController.h"
#include "console/StationRig.h"
#include "sim/SimEngines.h"
#include "platform/ProfileIni.h"
#include "sim/SimBench.h"
#include "support/PacWriter.h"
#include "support/StationFixture.h"
#include "support/StationProcess.h"
#include "support/TempDir.h"

namespace quorvel::console {
namespace {

using namespace app;

using Process = test::StationProcess;

engine::PhoneProfile QuickPhone() {
    engine::PhoneProfile p;
    p.durationMs = 800;
    p.sizeBytes = 4u << 20;
    p.speedMBps = 32;
    return p;
}

class StationRunE2e : public ::testing::Test {
protected:
    void SetUp() override {
        dir.Write("fw/MT6765_Android_scatter.txt", "scatter\n");
        WriteSettings(dir.File("fw/MT6765_Android_scatter.txt"));
    }
    // A station already stamped for this PC, every slot unbound.
    void WriteSettings(const std::string& package) {
        dir.Write("Config/CommonSetting.ini",
                  test::UnboundSettings("CheckSum=0\nLANGUAGE=2052\nFilePath=" + package +
                                        "\n[BENCH]\nSimulated=1\nHubs=1\nSocketsPerHub=4\n"));
    }
    std::string Saved(const char* section, int slot) {
        return platform::ProfileIni::ReadString(dir.File("Config/CommonSetting.ini"), section,
                                                "Index" + std::to_string(slot), "?", 260);
    }
    test::TempDir dir;
};

TEST_F(StationRunE2e, BromPhoneIsBoundByBothLocationsPassesAndKeepsItsSlotAfterARestart) {
    std::string ls0, hs0, ls2, hs2;
    {
        Process p(dir);
        ASSERT_TRUE(p.Init());
        EXPECT_EQ(p.run->Manager().WorkerCount(), 4);
        p.PressStartStop();
        ASSERT_EQ(p.Button(), DOWNLOAD_BUTTON_STATUS_STOP);
        ls0 = p.Bench().LsLocation(0), hs0 = p.Bench().HsLocation(0);
        ls2 = p.Bench().LsLocation(2), hs2 = p.Bench().HsLocation(2);

        // Socket 2 first, so it takes slot 0 and socket 0 takes slot 1.
        ASSERT_TRUE(p.Bench().Plug(2, sim::PhoneKind::MTK_BROM, QuickPhone()));
        // Its DA form is bound before the next phone comes: on this bench the two speeds
        // enumerate on different controllers, where two phones switching at once cannot be
        // told apart (docs/architecture.md, Departures).
        ASSERT_TRUE(Process::Await([&] { return p.station->bindings.Get(0).hs == hs2; }));
        ASSERT_TRUE(p.Bench().Plug(0, sim::PhoneKind::MTK_BROM, QuickPhone()));
        ASSERT_TRUE(Process::Await([&] { return p.station->statistics.Total() == 2; }));
        ASSERT_TRUE(Process::Await([&] {
            return p.station->bindings.State(0) == BIND_ALL_BINDED && p.station->bindings.State(1) == BIND_ALL_BINDED;
        }));
        EXPECT_EQ(p.station->statistics.Fail(), 0u);
        EXPECT_EQ(p.Bench().ModeAt(0), sim::PhoneMode::DA);
        const auto slot1 = p.station->bindings.Get(1);
        EXPECT_EQ(slot1.ls, ls0);
        EXPECT_EQ(slot1.hs, hs0);
        EXPECT_EQ(p.station->bindings.Get(0).hs, hs2);

        p.PressStartStop();
        EXPECT_EQ(p.Button(), DOWNLOAD_BUTTON_STATUS_START);
        EXPECT_FALSE(p.station->stationRunning);
        EXPECT_TRUE(p.ui.Messages().empty());
    }
    EXPECT_EQ(Saved("USBPORTINFO", 1), hs0);
    EXPECT_EQ(Saved("BROMPORTINFO", 1), ls0);
    EXPECT_EQ(Saved("THREADSTATUS", 1), "ALL_BINDED");
    EXPECT_EQ(Saved("USBPORTINFO", 2), "NA");
    EXPECT_EQ(platform::ProfileIni::ReadString(dir.File("Config/TestResult.ini"), "total", "NUM", "?", 32), "2");

    {
        Process p(dir);
        ASSERT_TRUE(p.Init());
        EXPECT_EQ(p.station->bindings.State(1), BIND_ALL_BINDED);
        p.PressStartStop();
        ASSERT_TRUE(p.Bench().Plug(0, sim::PhoneKind::MTK_BROM, QuickPhone()));
        ASSERT_TRUE(Process::Await([&] { return p.station->statistics.Total() == 3; }));
        EXPECT_EQ(p.run->Manager().WorkerAt(1)->Device().location, hs0);
        EXPECT_EQ(p.run->Manager().WorkerAt(0)->Device().location, "");
        // Unplugging the last phone of an idle run stops the station by itself.
        ASSERT_TRUE(Process::Await([&] { return p.station->bindings.State(1) == BIND_ALL_BINDED; }));
        p.Bench().Unplug(0);
        ASSERT_TRUE(Process::Await([&] { return p.Button() == DOWNLOAD_BUTTON_STATUS_START; }));
    }
}

// Phones as the kernel presents them: two interfaces each, serial ports that come
// late, a port number freed by one phone and reused by the next.
TEST_F(StationRunE2e, ThreePhonesGiveThreeRowsThreeJobsAndNoBindingWithoutALocation) {
    {
        Process p(dir);
        ASSERT_TRUE(p.Init());
        p.Bench().SetSerialDelay(300);
        p.PressStartStop();
        for (int socket : {1, 2, 3}) ASSERT_TRUE(p.Bench().Plug(socket, sim::PhoneKind::MTK_PRELOADER, QuickPhone()));
        ASSERT_TRUE(Process::Await([&] { return p.station->statistics.Total() == 3; }));
        EXPECT_EQ(p.station->slotList.RowCount(), 3);
        std::vector<std::string> bound;
        for (int i = 0; i < 4; ++i) bound.push_back(p.station->bindings.HsLocation(i));
        EXPECT_EQ(bound, (std::vector<std::string>{p.Bench().HsLocation(1), p.Bench().HsLocation(2),
                                                   p.Bench().HsLocation(3), "NA"}));
    }
    EXPECT_EQ(platform::ProfileIni::ReadString(dir.File("Config/TestResult.ini"), "total", "NUM", "?", 32), "3");
    for (int i = 0; i < kSlotCount; ++i) EXPECT_NE(Saved("USBPORTINFO", i), "") << i;
}

TEST_F(StationRunE2e, SprdPhonesAreServedThroughBothPhasesAndTheirUnplugKeepsTheRun) {
    test::WritePac(dir.File("fw/phone.pac"), test::TypicalSprdPac());
    WriteSettings(dir.File("fw/phone.pac"));
    Process p(dir);
    ASSERT_TRUE(p.Init());
    p.PressStartStop();  // extracts and configures the package first
    ASSERT_EQ(p.Button(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_TRUE(p.station->package.prepared);
    engine::PhoneProfile quick = QuickPhone();
    quick.sprdPhase1Ms = 300;
    ASSERT_TRUE(p.Bench().Plug(3, sim::PhoneKind::SPRD, quick));
    ASSERT_TRUE(Process::Await([&] { return p.station->bindings.Get(0).hs == p.Bench().HsLocation(3); }));
    ASSERT_TRUE(p.Bench().Plug(1, sim::PhoneKind::SPRD, quick));
    ASSERT_TRUE(Process::Await([&] { return p.station->statistics.Total() == 2; }));
    EXPECT_EQ(p.station->statistics.Fail(), 0u);
    EXPECT_EQ(p.Bench().ModeAt(3), sim::PhoneMode::SPRD_DOWNLOAD);
    // Back on its download port, each phone went to the slot of its socket.
    EXPECT_EQ(p.station->bindings.Get(0).hs, p.Bench().HsLocation(3));
    EXPECT_EQ(p.station->bindings.Get(1).hs, p.Bench().HsLocation(1));
    EXPECT_EQ(p.station->bindings.Get(2).hs, "NA");
    // Unplugging serial phones never stops the run.
    p.Bench().Unplug(3);
    p.Bench().Unplug(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(p.Button(), DOWNLOAD_BUTTON_STATUS_STOP);
    EXPECT_TRUE(p.ui.Messages().empty());
}

// A start-up that fails for want of CommonSetting.ini ends without creating it.
TEST_F(StationRunE2e, FailedStartUpSavesNothingAtExit) {
    std::filesystem::remove(dir.File("Config/CommonSetting.ini"));
    {
        Process p(dir);
        EXPECT_FALSE(p.Init());
    }
    EXPECT_FALSE(std::filesystem::exists(dir.File("Config/CommonSetting.ini")));
}

TEST_F(StationRunE2e, StartWithoutThePackageFileShowsTheMessageAndStaysReady) {
    WriteSettings(dir.File("gone/x_scatter.txt"));
    Process p(dir);
    ASSERT_TRUE(p.Init());
    // The package display at start-up already misses the file.
    EXPECT_EQ(p.ui.Messages(), std::vector<std::string>{"Please select MTK Scatter file first!"});
    EXPECT_EQ(p.station->view.Text(app::IDC_PATH_BANNER), "");
    p.ui.Clear();
    p.PressStartStop();
    EXPECT_EQ(p.Button(), DOWNLOAD_BUTTON_STATUS_INIT);
    EXPECT_FALSE(p.station->stationRunning);
    EXPECT_EQ(p.ui.Messages(), std::vector<std::string>{"Please select MTK Scatter file first!"});
}

}  // namespace
}  // namespace quorvel::console
