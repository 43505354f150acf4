#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <map>

#include "history/JobHistoryReader.h"
#include "slots/EngineHarness.h"
#include "station/Texts.h"
#include "support/TableFile.h"
#include "support/TempDir.h"

namespace quorvel::engine {
namespace {

using test::EngineHarness;
using test::RecordingMtk;

TEST(DownloadWorkerNames, ExtractComNumberAndDisplayName) {
    EXPECT_EQ(ExtractComNumber("Phone (COM7)"), 7);
    EXPECT_EQ(ExtractComNumber("Phone (COM256)"), 256);
    EXPECT_EQ(ExtractComNumber("Phone (COM1000)"), -1);
    EXPECT_EQ(ExtractComNumber("Phone (COM0)"), -1);
    EXPECT_EQ(ExtractComNumber("(AB12)"), 2);
    EXPECT_EQ(ExtractComNumber("Phone COM7"), -1);
    EXPECT_EQ(DownloadWorker::DisplayName("USB Port (Modem) (COM23)"), "(COM23)USB Port (Modem) ");
    EXPECT_EQ(DownloadWorker::DisplayName("Plain name"), "Plain name");
}

TEST(WorkerEventsTest, StopWinsThenSprdThenMtkThenFp) {
    platform::ManualClock clock;
    WorkerEvents events(clock);
    for (auto e : {WorkerEvents::FP, WorkerEvents::MTK, WorkerEvents::SPRD, WorkerEvents::STOP}) events.Set(e);
    for (auto e : {WorkerEvents::STOP, WorkerEvents::SPRD, WorkerEvents::MTK, WorkerEvents::FP})
        EXPECT_EQ(events.Wait(), e);
}

// The restart notice and the binding a job leaves: mtk_job_end.txt.
TEST(DownloadWorkerJobs, MtkCallOrder) {
    EngineHarness h(1, RecordingMtk::Swap());
    auto& s = h.st.settings;
    s.CheckVersion = 1, s.BromLog = 2, s.FlashCheckSum = 3, s.ForceWatchdogReset = 1, s.EnableAutoPulling = 0;
    s.Battery = 5, s.MTK_BK_NVRAM_FILENAME = "nv.bin", s.MTK_BK_PROINFO_FILENAME = "pro.bin";
    s.MTK_UPGRADE_BK_NV = 6, s.CleanBinRegionData = 7, s.NVDATAZIP = 8;
    s.memoryTest = {1, 0, 1, 0, 9};
    h.st.package.downloadType = 4;
    h.st.bindings.SetState(0, app::BindState::PreloaderBinded);  // not ALL_BINDED: the DA port is set
    h.StartStation();
    h.HandOver(0, h.Device(app::EventKind::MTK, "MTK DA (COM1)", "id"));
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 1; }));
    EXPECT_EQ(RecordingMtk::Of(h, 0).Calls(),  // no efuse call while efuse is off
              "SetDLPara(0,1,2,3,1,0,5,0,,nv.bin,pro.bin,6,7,8) SetMemoryTestPara(1,0,1,0,9) SetDAPort(0) "
              "SetDownloadType(4) SetDeviceInfo(MTK DA (COM1)) DLOperationStart() ");
}

// Binding takes the slot out of BUSY during phase 2: the job ends without the
// engine's result, failed, and says so in the history.
TEST(DownloadWorkerJobs, SprdJobReleasedInPhase2FailsWithoutAVerdict) {
    EngineHarness h(1);
    h.registry.SetPortProfile(1, {.durationMs = 600000});
    h.ReplugSprdOnSwitch(2000);
    h.StartStation();
    h.HandOver(0, h.Device(app::EventKind::SPRD, "SPRD U2S Diag (COM1)", "s"));
    ASSERT_TRUE(h.RunUntil([&] { return h.Result(0) == "OnSwith"; }));
    ASSERT_TRUE(h.RunUntil([&] { return h.State(0) == app::BindState::Busy && h.Result(0) == "Ongoing"; }));
    h.loop.Call([&] { h.st.bindings.SetState(0, app::BindState::Idle); });
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 1; }));
    EXPECT_EQ(h.Slot(0), "Ongoing | Checking baudrate | ALL_BINDED");
    EXPECT_EQ(h.Fail(), 1u);
    const auto jobs = app::ReadJobHistory(h.fx.dir.File("TestLog")).jobs;
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].result, app::JobResult::Fail);
    EXPECT_EQ(jobs[0].failedStep + " | " + jobs[0].errorText,
              std::string("Checking baudrate | ") + app::texts::kReasonNoVerdict);
    EXPECT_EQ(h.st.slotList.Row(0).phase, app::SlotPhase::FAIL);
}

// The cases: tests/tables/sim-package-problem.txt.
TEST(SimPackageProblem, RefusesWhatListsNothingOrIsNoFile) {
    test::TempDir dir;
    ASSERT_EQ(::mkfifo(dir.File("fifo.txt").c_str(), 0600), 0);
    ::mkdir(dir.File("folder.txt").c_str(), 0700);
    for (const test::TableRow& row : test::ReadTable("sim-package-problem.txt")) {
        SCOPED_TRACE(row.where);
        ASSERT_EQ(row.words.size(), 4u);
        if (row.words[1] != "-") dir.Write(row.words[0], row.words[1]);
        const std::string problem = SimPackageProblem(dir.File(row.words[0]));
        EXPECT_EQ(problem.empty(), row.words[3].empty()) << problem;
        EXPECT_NE(problem.find(row.words[3]), std::string::npos) << problem;
    }
}

TEST(DownloadWorkerJobs, StopCancelsMtkAndCfgJobsButNotSprd) {
    EngineHarness h(3);
    h.registry.SetProfile("mtk", {.durationMs = 600000});
    h.registry.SetProfile("cfg", {.durationMs = 600000});
    h.registry.SetPortProfile(3, {.durationMs = 20000});
    h.ReplugSprdOnSwitch(2000);
    h.StartStation();
    h.HandOver(0, h.Device(app::EventKind::MTK, "M (COM1)", "mtk"));
    h.HandOver(1, h.Device(app::EventKind::CFG, "C (COM2)", "cfg"));
    h.HandOver(2, h.Device(app::EventKind::SPRD, "S (COM3)", "sprd"));
    ASSERT_TRUE(
        h.RunUntil([&] { return h.st.slots.fpJob[1] == app::FpJobState::Running && h.Result(2) == "OnSwith"; }));
    ASSERT_TRUE(h.RunUntil([&] { return h.State(2) == app::BindState::Busy && h.Result(2) == "Ongoing"; }));  // phase 2
    for (int i = 0; i < 3; ++i) h.manager->WorkerAt(i)->Stop();
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() >= 2; }));
    EXPECT_LT(h.fx.clock.Now(), 600000);  // the long jobs ended early, counted as failed
    EXPECT_EQ(h.Fail(), 2u);
    EXPECT_EQ(h.Result(0), "FAIL(0/1)");
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 3; }));
    EXPECT_EQ(h.Result(2), "PASS(1/1)");  // the SPRD job ran to its end
    ASSERT_TRUE(h.RunUntil([&] { return !h.manager->WorkerAt(2)->IsRunning(); }));
    // The counters take the stopped jobs as failures; the history says what they were.
    std::map<int, std::pair<std::string, std::string>> kept;
    for (const auto& job : app::ReadJobHistory(h.fx.dir.File("TestLog")).jobs)
        kept[job.slot] = {job.platform, app::JobResultText(job.result)};
    EXPECT_EQ(kept, (std::map<int, std::pair<std::string, std::string>>{
                        {0, {"MTK", "interrupted"}}, {1, {"CFG", "interrupted"}}, {2, {"SPRD", "PASS"}}}));
    // A job cut short shows so on its tile, apart from a failure.
    EXPECT_EQ(h.st.slotList.Row(0).phase, app::SlotPhase::INTERRUPTED);
}

// Each SPRD slot serves its own phone: one handed over while the station was stopped
// waits for Start (nothing of it is drawn or kept before), then gets its row and its
// port, without later slots' rows taking its place. (A phone reported without a port
// number: sprd_port_without_number.txt.)
TEST(DownloadWorkerJobs, SprdSlotsServeTheirOwnPhones) {
    EngineHarness h(2);
    h.st.slotList.DeleteAllRows();
    for (auto& shown : h.st.slots.rowShown) shown = false;
    h.registry.SetPortProfile(5, {.pass = false, .failingStep = 1});
    h.ReplugSprdOnSwitch(500);
    h.HandOver(0, h.Device(app::EventKind::SPRD, "SPRD U2S Diag (COM5)", "a"));
    h.Settle();
    EXPECT_EQ(h.Total(), 0u);
    EXPECT_EQ(h.st.bindings.ComName(0), "Phone (COM1)");
    EXPECT_EQ(h.st.slotList.RowCount(), 0);
    h.StartStation();
    h.HandOver(1, h.Device(app::EventKind::SPRD, "SPRD U2S Diag (COM2)", "b"), HandOver::BUSY);
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 2 && h.State(1) == app::BindState::AllBinded; }));
    EXPECT_EQ(h.Fail(), 1u);
    EXPECT_EQ(h.Result(0), "FAIL(0/1)");
    EXPECT_EQ(h.Result(1), "PASS(1/1)");
    EXPECT_EQ(h.st.bindings.ComName(0), "(COM5)SPRD U2S Diag ");
    EXPECT_EQ(h.st.slotList.CellText(0, app::COL_NUMBER), "01");
    EXPECT_EQ(h.st.slotList.CellText(1, app::COL_NUMBER), "02");
}

// A CFG phone pulled out while its job runs gives its slot back, its port black. (The
// other removals: cfg_unplug_release.txt, sprd_two_phases.txt.)
TEST(DownloadWorkerJobs, RemovalDuringACfgJobBindsTheSlotAgain) {
    EngineHarness h(1);
    h.st.stationRunning = true;
    h.st.package.kind = app::PackageKind::MtkCfg;
    h.HandOver(0, h.Device(app::EventKind::CFG, "Gadget (COM1)", "g"));
    h.st.bindings.SetState(0, app::BindState::AllBinded);
    h.st.slots.fpJob[0] = app::FpJobState::Running;
    h.loop.Call([&] { h.manager->WorkerAt(0)->NotifyDevice(NOTIFY_REMOVED, ""); });
    EXPECT_EQ(h.State(0), app::BindState::AllBinded);
    EXPECT_EQ(h.st.slotList.Row(0).cells[app::COL_DEVICE].colour, app::kBlack);
}

TEST(DownloadWorkerPackage, VersionTextAndPreLoad) {
    EngineHarness h(1, RecordingMtk::Swap());
    std::string text = "keep";
    h.manager->PackageVersionText(app::PackageKind::MtkCfg, text);
    EXPECT_EQ(text, "keep");
    h.manager->PackageVersionText(app::PackageKind::MtkScatter, text);
    EXPECT_EQ(text, "1.0");
    RecordingMtk::Of(h, 0).version = "V1.0";
    h.manager->PackageVersionText(app::PackageKind::MtkScatter, text);
    EXPECT_EQ(text, "");

    h.st.package.kind = app::PackageKind::MtkScatter;
    EXPECT_EQ(h.manager->PreLoadPackage(), 0);
    RecordingMtk::Of(h, 0).result = 1;
    EXPECT_EQ(h.manager->PreLoadPackage(), kPreLoadRefused);
}

}  // namespace
}  // namespace quorvel::engine
