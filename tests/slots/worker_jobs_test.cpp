#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>

#include "history/JobHistoryReader.h"
#include "slots/EngineHarness.h"
#include "station/Texts.h"
#include "support/TableFile.h"
#include "support/TempDir.h"

namespace quorvel::engine {
namespace {

using test::EngineHarness;

// Records the calls it is given; jobs and the preload return `result`.
class RecordingMtk final : public MtkEngine {
public:
    static RecordingMtk& Of(EngineHarness& h, int slot) {
        return static_cast<RecordingMtk&>(h.manager->WorkerAt(slot)->Mtk());
    }
    static test::EngineSwap Swap() {
        return {.mtk = [] { return std::make_unique<RecordingMtk>(); }};
    }
    std::string Calls() {
        std::lock_guard g(mutex_);
        return calls_;
    }

    void SetDLPara(int a1, int a2, int a3, int a4, int a5, int a6, int a7, int a8, const char* a9, const char* a10,
                   const char* a11, int a12, int a13, int a14) override {
        Log("SetDLPara", a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14);
    }
    void SetMemoryTestPara(int a, int b, int c, int d, int e) override { Log("SetMemoryTestPara", a, b, c, d, e); }
    void SetEfusePara(int, const char* xml, int, const char*, const char*, const char*) override {
        Log("SetEfusePara", xml);
    }
    void SetDAPort(int i) override { Log("SetDAPort", i); }
    void SetDownloadType(int t) override { Log("SetDownloadType", t); }
    void SetDeviceInfo(app::DeviceInfo* d) override { Log("SetDeviceInfo", d->friendlyName); }
    int DLOperationStart() override {
        Log("DLOperationStart");
        return result;
    }
    void CancelTask() override {}
    int GetPCLoadVersion(char* b) override {
        std::strcpy(b, version.c_str());
        return 0;
    }
    void GetVersionInfo(app::VersionInfo*) override {}
    int PreLoadFiles(char*, bool, int, int, app::SpmtkEfuseInfo, bool) override { return result; }
    int VerifyHostBufferBeforeStart(const char*) override { return 1; }
    void SetChkSumWnd(app::MessageWindow*) override {}

    std::atomic<int> result{0};
    std::string version = "CY_1.0";

private:
    template <class... A>
    void Log(const char* name, const A&... args) {
        std::ostringstream s;
        s << name << '(';
        [[maybe_unused]] const char* sep = "";
        ((s << sep << args, sep = ","), ...);
        std::lock_guard g(mutex_);
        calls_ += s.str() + ") ";
    }
    std::mutex mutex_;
    std::string calls_;
};

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

TEST(DownloadWorkerJobs, MtkCallOrderRestartNoticeAndEndStateByBoundLocations) {
    EngineHarness h(3, RecordingMtk::Swap());
    auto& s = h.st.settings;
    s.CheckVersion = 1, s.BromLog = 2, s.FlashCheckSum = 3, s.ForceWatchdogReset = 1, s.EnableAutoPulling = 0;
    s.Battery = 5, s.MTK_BK_NVRAM_FILENAME = "nv.bin", s.MTK_BK_PROINFO_FILENAME = "pro.bin";
    s.MTK_UPGRADE_BK_NV = 6, s.CleanBinRegionData = 7, s.NVDATAZIP = 8;
    s.memoryTest = {1, 0, 1, 0, 9};
    h.st.package.downloadType = 4;
    auto& b = h.st.bindings;
    b.SetState(0, app::BindState::PreloaderBinded);  // not ALL_BINDED: the DA port is set
    b.SetLsLocation(1, "NA");                        // HS only: ends PRELOADER_BINDED
    b.SetLsLocation(2, "NA");                        // neither: ends IDLE, LS stays NA
    b.SetHsLocation(2, "NA");
    RecordingMtk::Of(h, 1).result = 1;
    RecordingMtk::Of(h, 2).result = 1;
    h.StartStation();
    for (int i = 0; i < 3; ++i)
        h.HandOver(i, h.Device(app::EventKind::MTK, "MTK DA (COM" + std::to_string(i + 1) + ")", "id"));
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 3; }));
    EXPECT_EQ(RecordingMtk::Of(h, 0).Calls(),  // no efuse call while efuse is off
              "SetDLPara(0,1,2,3,1,0,5,0,,nv.bin,pro.bin,6,7,8) SetMemoryTestPara(1,0,1,0,9) SetDAPort(0) "
              "SetDownloadType(4) SetDeviceInfo(MTK DA (COM1)) DLOperationStart() ");
    EXPECT_EQ(h.Fail(), 2u);
    EXPECT_EQ(h.State(0), app::BindState::AllBinded);
    EXPECT_EQ(h.State(1), app::BindState::PreloaderBinded);
    EXPECT_EQ(h.State(2), app::BindState::Idle);
    EXPECT_EQ(b.LsLocation(2), "NA");
    // Only the passed job restarts its phone.
    using Status = std::pair<int, std::string>;
    EXPECT_EQ(h.Statuses(), (std::vector<Status>{{0, "The phone is restarting, Please wait for a moment!"},
                                                 {0, "The phone has finished restart, Please move the phone!"}}));
}

// The last job of slot 0 as the history keeps it: "result | step | error".
std::string LastJobKept(EngineHarness& h) {
    const auto jobs = app::ReadJobHistory(h.fx.dir.File("TestLog")).jobs;
    if (jobs.empty()) return "none";
    const app::JobRecord& j = jobs.back();
    return std::string(app::JobResultText(j.result)) + " | " + j.failedStep + " | " + j.errorText;
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
    EXPECT_EQ(LastJobKept(h), std::string("FAIL | Checking baudrate | ") + app::texts::kReasonNoVerdict);
    EXPECT_EQ(h.st.slotList.Row(0).phase, app::SlotPhase::FAIL);
}

// A failing job after a passed one of a larger image on the same slot: the bar never
// shows a count past its total. (What the history keeps: mtk_failures_kept.txt.)
TEST(DownloadWorkerJobs, TheBarNeverCountsPastItsTotal) {
    EngineHarness h(1);
    std::mutex seen;  // the observer runs on the worker and the station thread
    std::vector<std::string> pastTheTotal;
    h.st.slotList.SetObserver([&] {
        double done = 0, total = 0;
        const std::string bar = h.st.slotList.Row(0).progress.text;
        const auto open = bar.find('(');
        if (open != std::string::npos && std::sscanf(bar.c_str() + open, "(%lf/%lfM)", &done, &total) == 2 &&
            done > total) {
            std::lock_guard g(seen);
            pastTheTotal.push_back(bar);
        }
    });
    h.registry.SetProfile("big", {.sizeBytes = 25u << 20});
    h.registry.SetProfile("small", {.pass = false, .failingStep = 2, .sizeBytes = 21u << 20});
    h.StartStation();
    for (const auto& [phone, count] : {std::pair{"big", 1u}, std::pair{"small", 2u}}) {
        const unsigned total = count;  // a lambda cannot capture a structured binding before C++20 in every compiler
        h.HandOver(0, h.Device(app::EventKind::CFG, "Phone (COM1)", phone));
        ASSERT_TRUE(
            h.RunUntil([&] { return h.Total() == total && h.st.slotList.Row(0).phase != app::SlotPhase::FLASHING; }));
    }
    h.st.slotList.SetObserver({});
    EXPECT_EQ(pastTheTotal, std::vector<std::string>{});
    EXPECT_EQ(h.Fail(), 1u);
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

// Each SPRD slot serves its own phone: one bound while the station was stopped waits
// for Start (nothing of it is drawn or kept before), then gets its row and its port,
// without later slots' rows taking its place; one whose port has no number yet holds
// its slot BUSY until it leaves, and is served once it comes back with the number.
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
    h.HandOver(1, h.Device(app::EventKind::SPRD, "SPRD U2S Diag", "b"), HandOver::BUSY);
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 1; }));
    h.fx.clock.Advance(60000);
    h.Settle();
    EXPECT_EQ(h.Slot(1), "Ongoing |  | BUSY");
    EXPECT_EQ(h.Total(), 1u);
    h.loop.Call([&] { h.manager->WorkerAt(1)->NotifyDevice(NOTIFY_REMOVED, ""); });
    EXPECT_EQ(h.State(1), app::BindState::AllBinded);
    h.HandOver(1, h.Device(app::EventKind::SPRD, "SPRD U2S Diag (COM2)", "b"), HandOver::BUSY);
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 2 && h.State(1) == app::BindState::AllBinded; }));
    EXPECT_EQ(h.Fail(), 1u);
    EXPECT_EQ(h.Result(0), "FAIL(0/1)");
    EXPECT_EQ(h.Result(1), "PASS(1/1)");
    EXPECT_EQ(h.st.bindings.ComName(0), "(COM5)SPRD U2S Diag ");
    EXPECT_EQ(h.st.slotList.CellText(0, app::COL_NUMBER), "01");
    EXPECT_EQ(h.st.slotList.CellText(1, app::COL_NUMBER), "02");
}

// The phone re-enumerates in DA mode because its job switched it: handed over once
// the job has ended, it is part of that job, never a second one, and the slot does not
// stay BUSY. (Handed over during the job: the boot-ROM scenario files.)
TEST(DownloadWorkerJobs, TheDaFormOfAServedPhoneIsNeverServedAgain) {
    EngineHarness h(2);
    h.StartStation();
    h.HandOver(1, h.Device(app::EventKind::MTK, "MTK PreLoader (COM2)", "USB\\VID_0E8D&PID_2000\\1-1.2:1.0"));
    // The engine's DA switch marks the slot DA_BINDED.
    ASSERT_TRUE(h.RunUntil([&] { return h.State(1) == app::BindState::DaBinded; }));
    ASSERT_TRUE(h.RunUntil([&] { return h.Total() == 1; }));
    EXPECT_FALSE(h.HandOver(1, h.Device(app::EventKind::MTK, "MTK DA USB VCOM (COM2)", "p"), HandOver::DA_MODE));
    h.fx.clock.Advance(60000);
    h.Settle();
    EXPECT_EQ(h.Slot(1), "PASS(1/1) | Download Completely!(100%) | ALL_BINDED");
    EXPECT_EQ(h.Total(), 1u);
    EXPECT_EQ(h.Fail(), 0u);
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
