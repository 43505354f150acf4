#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "EngineHarness.h"
#include "app/Texts.h"

namespace quorvel::engine {
namespace {

using test::EngineHarness;

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Records the calls of the MTK and CFG engines; jobs return `result`.
struct CallLog {
    std::mutex mutex;
    std::vector<std::string> calls;
    void Add(std::string call) {
        std::lock_guard g(mutex);
        calls.push_back(std::move(call));
    }
};

class RecordingMtk final : public MtkEngine {
public:
    RecordingMtk(CallLog& log, int result) : log_(log), result_(result) {}
    void SetDLPara(int a1, int a2, int a3, int a4, int a5, int a6, int a7, int a8, const char* a9, const char* a10,
                   const char* a11, int a12, int a13, int a14) override {
        char buf[512];
        std::snprintf(buf, sizeof buf, "SetDLPara(%d,%d,%d,%d,%d,%d,%d,%d,'%s','%s','%s',%d,%d,%d)", a1, a2, a3, a4, a5,
                      a6, a7, a8, a9, a10, a11, a12, a13, a14);
        log_.Add(buf);
    }
    void SetMemoryTestPara(int a, int b, int c, int d, int e) override {
        log_.Add("SetMemoryTestPara(" + std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(c) + "," +
                 std::to_string(d) + "," + std::to_string(e) + ")");
    }
    void SetEfusePara(int, const char* xml, int, const char*, const char*, const char*) override {
        log_.Add(std::string("SetEfusePara(") + xml + ")");
    }
    void SetDAPort(int i) override { log_.Add("SetDAPort(" + std::to_string(i) + ")"); }
    void SetDownloadType(int t) override { log_.Add("SetDownloadType(" + std::to_string(t) + ")"); }
    void SetDeviceInfo(app::DeviceInfo* d) override {
        log_.Add("SetDeviceInfo(" + app::FieldText(d->friendlyName) + ")");
    }
    int DLOperationStart() override {
        log_.Add("DLOperationStart");
        return result_;
    }
    void CancelTask() override {}
    int GetPCLoadVersion(char* b) override {
        std::strcpy(b, version.c_str());
        return 0;
    }
    void GetVersionInfo(app::VersionInfo*) override {}
    int PreLoadFiles(char*, bool, int, int, app::SpmtkEfuseInfo, bool) override { return result_; }
    int VerifyHostBufferBeforeStart(const char*) override { return 1; }
    void SetChkSumWnd(platform::MessageWindow*) override {}
    std::string version = "CY_1.0";

private:
    CallLog& log_;
    int result_;
};

class RecordingFp final : public FpEngine {
public:
    RecordingFp(CallLog& log, int result) : log_(log), result_(result) {}
    int PreLoadFiles_FP(const char*) override { return 0; }
    void SetDownloadType_FP(int t) override { log_.Add("SetDownloadType_FP(" + std::to_string(t) + ")"); }
    void SetDeviceInfo(app::DeviceInfo*) override { log_.Add("SetDeviceInfo"); }
    void SetDLPara(int i) override { log_.Add("SetDLPara(" + std::to_string(i) + ")"); }
    int MTKFP_OperationStart() override {
        log_.Add("MTKFP_OperationStart");
        return result_;
    }
    void CancelTask() override {}

private:
    CallLog& log_;
    int result_;
};

class RecordingFactory final : public EngineFactory {
public:
    RecordingFactory(SimEngineFactory& sim, int result) : sim_(sim), result_(result) {}
    std::unique_ptr<MtkEngine> MakeMtk(platform::MessageWindow&) override {
        return std::make_unique<RecordingMtk>(log, result_);
    }
    std::unique_ptr<FpEngine> MakeFp(platform::MessageWindow&) override {
        return std::make_unique<RecordingFp>(log, result_);
    }
    std::unique_ptr<SprdEngine> MakeSprd(platform::MessageWindow& w) override { return sim_.MakeSprd(w); }
    CallLog log;

private:
    SimEngineFactory& sim_;
    int result_;
};

TEST(DownloadWorkerNames, ExtractComNumberAndDisplayName) {
    EXPECT_EQ(DownloadWorker::ExtractComNumber("Phone (COM7)"), 7);
    EXPECT_EQ(DownloadWorker::ExtractComNumber("Phone (COM256)"), 256);
    EXPECT_EQ(DownloadWorker::ExtractComNumber("Phone (COM1000)"), -1);
    EXPECT_EQ(DownloadWorker::ExtractComNumber("Phone (COM0)"), -1);
    EXPECT_EQ(DownloadWorker::ExtractComNumber("(AB12)"), 2);
    EXPECT_EQ(DownloadWorker::ExtractComNumber("Phone COM7"), -1);
    EXPECT_EQ(DownloadWorker::DisplayName("USB Port (Modem) (COM23)"), "(COM23)USB Port (Modem) ");
    EXPECT_EQ(DownloadWorker::DisplayName("Plain name"), "Plain name");
}

TEST(WorkerEventsTest, StopWinsThenSprdThenMtkThenFp) {
    platform::ManualClock clock;
    WorkerEvents events(clock);
    events.Set(WorkerEvents::FP);
    events.Set(WorkerEvents::MTK);
    events.Set(WorkerEvents::SPRD);
    events.Set(WorkerEvents::STOP);
    EXPECT_EQ(events.Wait(), WorkerEvents::STOP);
    EXPECT_EQ(events.Wait(), WorkerEvents::SPRD);
    EXPECT_EQ(events.Wait(), WorkerEvents::MTK);
    EXPECT_EQ(events.Wait(), WorkerEvents::FP);
}

TEST(DownloadWorkerJobs, CompleteMtkJobWithTextsCountersAndBindingState) {
    EngineHarness h(2);
    h.StartStation();
    h.HandOver(1, h.Device(app::EVENT_MTK, "MediaTek PreLoader (COM2)", "USB\\VID_0E8D&PID_2000\\1-1.2:1.0"));
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Total() == 1; }));
    EXPECT_EQ(h.Result(1), "PASS(1/1)");
    EXPECT_EQ(h.Bar(1), "Download Completely!(100%)");
    EXPECT_EQ(h.fx.station->statistics.Fail(), 0u);
    EXPECT_EQ(h.State(1), app::BIND_ALL_BINDED);
    EXPECT_EQ(h.fx.station->slotList.CellText(1, app::COL_BINDED), "ALL_BINDED");
    EXPECT_EQ(h.fx.station->slotList.CellText(1, app::COL_DEVICE), "(COM2)MediaTek PreLoader ");
    const auto file = ReadFile(h.fx.dir.File("Config/TestResult.ini"));
    EXPECT_NE(file.find("[total]"), std::string::npos);
    EXPECT_NE(file.find("NUM=1"), std::string::npos);
    bool switched = false;
    for (const auto& [sub, text] : h.Statuses()) switched = switched || text == "Switch DA Port Success...";
    EXPECT_TRUE(switched);
}

TEST(DownloadWorkerJobs, MtkCallOrderArgumentsAndRestartNotice) {
    EngineHarness probe(0);
    RecordingFactory factory(probe.sim, 0);
    EngineHarness h(1, &factory);
    auto& s = h.fx.station->settings;
    s.CheckVersion = 1, s.BromLog = 2, s.FlashCheckSum = 3, s.ForceWatchdogReset = 1, s.EnableAutoPulling = 0;
    s.Battery = 5, s.MTK_BK_NVRAM_FILENAME = "nv.bin", s.MTK_BK_PROINFO_FILENAME = "pro.bin";
    s.MTK_UPGRADE_BK_NV = 6, s.CleanBinRegionData = 7, s.NVDATAZIP = 8;
    s.memoryTest = {1, 0, 1, 0, 9};
    h.fx.station->package.downloadType = 4;
    h.fx.station->bindings.SetState(0, app::BIND_PRELOADER_BINDED);
    h.StartStation();
    h.HandOver(0, h.Device(app::EVENT_MTK, "MTK DA (COM9)", "id"));
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Total() == 1; }));
    const std::vector<std::string> expected = {"SetDLPara(0,1,2,3,1,0,5,0,'','nv.bin','pro.bin',6,7,8)",
                                               "SetMemoryTestPara(1,0,1,0,9)",
                                               "SetDAPort(0)",
                                               "SetDownloadType(4)",
                                               "SetDeviceInfo(MTK DA (COM9))",
                                               "DLOperationStart"};
    EXPECT_EQ(factory.log.calls, expected);  // no efuse call while efuse is off
    const auto statuses = h.Statuses();
    ASSERT_EQ(statuses.size(), 2u);
    EXPECT_EQ(statuses[0], std::make_pair(3, std::string("The phone is restarting, Please wait for a moment!")));
    EXPECT_EQ(statuses[1], std::make_pair(2, std::string("The phone has finished restart, Please move the phone!")));
}

TEST(DownloadWorkerJobs, MtkEndStateFollowsTheBoundLocations) {
    EngineHarness probe(0);
    RecordingFactory factory(probe.sim, 1);  // the job fails
    EngineHarness h(2, &factory);
    auto& b = h.fx.station->bindings;
    b.SetLsLocation(0, "NA");  // HS only: PRELOADER_BINDED
    b.SetLsLocation(1, "NA");  // neither: IDLE, LS stays NA
    b.SetHsLocation(1, "NA");
    h.StartStation();
    h.HandOver(0, h.Device(app::EVENT_MTK, "A (COM1)", "a"));
    h.HandOver(1, h.Device(app::EVENT_MTK, "B (COM2)", "b"));
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Total() == 2; }));
    EXPECT_EQ(h.fx.station->statistics.Fail(), 2u);
    EXPECT_EQ(h.State(0), app::BIND_PRELOADER_BINDED);
    EXPECT_EQ(h.State(1), app::BIND_IDLE);
    EXPECT_EQ(b.LsLocation(1), "NA");
    EXPECT_TRUE(h.Statuses().empty());  // no restart notice for a failed job
}

TEST(DownloadWorkerJobs, CfgBatchStopsTheStationWhenItsLastJobEnds) {
    EngineHarness h(2);
    h.fx.station->package.kind = app::PACKAGE_MTK_CFG;
    PhoneProfile shortJob;
    shortJob.durationMs = 2000;
    h.registry.SetProfile("short", shortJob);
    PhoneProfile longJob = shortJob;
    longJob.durationMs = 9000;
    h.registry.SetProfile("long", longJob);
    h.StartStation();
    h.HandOver(0, h.Device(app::EVENT_CFG, "CFG (COM1)", "short"));
    h.HandOver(1, h.Device(app::EVENT_CFG, "CFG (COM2)", "long"));
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->slots.fpJob[0] == 2; }));
    EXPECT_EQ(h.fx.station->statistics.Total(), 1u);
    EXPECT_EQ(h.State(0), app::BIND_BUSY);  // a CFG slot stays BUSY
    ASSERT_TRUE(h.RunUntil([&] { return h.startStopCommands.load() == 1; }));
    EXPECT_EQ(h.fx.station->statistics.Total(), 2u);
    h.Settle();
    EXPECT_EQ(h.startStopCommands.load(), 1);  // only the last job of the batch stops the run
}

// Plays the simulated bench: a phone that switched to its download port arrives again.
void ReplugOnSwitch(EngineHarness& h, int slot, int downloadPort) {
    h.registry.SetSwitchHook([&h, slot, downloadPort](const SwitchEvent& e) {
        if (e.kind != SwitchEvent::SPRD_TO_DOWNLOAD_PORT) return;
        const auto d = h.Device(app::EVENT_SPRD, "SPRD DL (COM" + std::to_string(downloadPort) + ")", "dl");
        h.Later(2000, [&h, slot, d] {  // re-enumeration takes a while
            h.manager->WorkerAt(slot)->SetThreadIndex(slot);
            h.manager->WorkerAt(slot)->AcceptDevice(d);
        });
    });
}

TEST(DownloadWorkerJobs, SprdRunsBothPhasesThenPasses) {
    EngineHarness h(3);
    ReplugOnSwitch(h, 2, 3);
    h.StartStation();
    h.HandOver(2, h.Device(app::EVENT_SPRD, "SPRD U2S Diag (COM3)", "sprd"));
    ASSERT_TRUE(h.RunUntil([&] { return h.Result(2) == "OnSwith"; }));
    EXPECT_EQ(h.fx.station->statistics.Total(), 0u);
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Total() == 1; }));
    EXPECT_EQ(h.Result(2), "PASS(1/1)");
    EXPECT_EQ(h.Bar(2), "Passed");
    EXPECT_EQ(h.fx.station->statistics.Fail(), 0u);
    EXPECT_EQ(h.State(2), app::BIND_ALL_BINDED);  // set before the count
    EXPECT_EQ(h.fx.station->slotList.CellText(2, app::COL_BINDED), "ALL_BINDED");
    EXPECT_EQ(h.router->SlotStepCounter(2), 5u);  // phase 2's five steps, numbered from 0
}

TEST(DownloadWorkerJobs, SprdFailurePaths) {
    EngineHarness h(4);
    PhoneProfile failPhase1;
    failPhase1.pass = false;
    failPhase1.failingStep = 1;
    h.registry.SetPortProfile(1, failPhase1);
    PhoneProfile hangs;
    hangs.sprdPhase1Ms = 60000;  // no "OnSwith" within 26 polls
    h.registry.SetPortProfile(2, hangs);
    PhoneProfile failPhase2;
    failPhase2.pass = false;
    failPhase2.failingStep = 5;  // erasing, in phase 2
    h.registry.SetPortProfile(3, failPhase2);
    ReplugOnSwitch(h, 2, 3);  // slot 2's phone re-arrives on port 3 = slot 2's COM name
    h.fx.station->bindings.SetComName(2, "Phone (COM3)");
    h.fx.station->bindings.SetComName(3, "Other (COM4)");
    h.StartStation();
    h.HandOver(0, h.Device(app::EVENT_SPRD, "S (COM1)", "s1"));
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Fail() == 1 && h.State(0) == app::BIND_ALL_BINDED; }));
    EXPECT_EQ(h.Result(0), "FAIL(0/1)");

    const auto start = h.fx.clock.Now();
    h.HandOver(1, h.Device(app::EVENT_SPRD, "S (COM2)", "s2"));
    h.fx.station->bindings.SetComName(1, "Phone (COM2)");
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Fail() == 2; }));
    EXPECT_GE(h.fx.clock.Now() - start, 26 * 500);
    EXPECT_EQ(h.Result(1), "Ongoing");

    h.HandOver(2, h.Device(app::EVENT_SPRD, "S (COM3)", "s3"));  // phase 1 passes on port 3, phase 2 fails
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Fail() == 3; }));
    EXPECT_EQ(h.Result(2), "FAIL(0/1)");
    EXPECT_EQ(h.fx.station->statistics.Total(), 3u);
}

TEST(DownloadWorkerJobs, SprdPhaseTwoFailsWhenTheSlotLeavesBusy) {
    EngineHarness h(1);
    PhoneProfile slow;
    slow.durationMs = 600000;
    h.registry.SetPortProfile(1, slow);
    ReplugOnSwitch(h, 0, 1);
    h.StartStation();
    h.HandOver(0, h.Device(app::EVENT_SPRD, "S (COM1)", "s"));
    ASSERT_TRUE(h.RunUntil([&] { return h.Result(0) == "OnSwith"; }));
    ASSERT_TRUE(h.RunUntil([&] { return h.State(0) == app::BIND_BUSY && h.Result(0) == "Ongoing"; }));
    h.loop.Call([&] { h.fx.station->bindings.SetState(0, app::BIND_IDLE); });  // binding released the slot
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Fail() == 1; }));
    EXPECT_EQ(h.fx.station->statistics.Total(), 1u);
}

TEST(DownloadWorkerJobs, StopCancelsMtkAndCfgJobsButNotSprd) {
    EngineHarness h(3);
    PhoneProfile slow;
    slow.durationMs = 600000;
    h.registry.SetProfile("mtk", slow);
    h.registry.SetProfile("cfg", slow);
    PhoneProfile sprd;
    sprd.durationMs = 20000;
    h.registry.SetPortProfile(3, sprd);
    ReplugOnSwitch(h, 2, 3);
    h.StartStation();
    h.HandOver(0, h.Device(app::EVENT_MTK, "M (COM1)", "mtk"));
    h.HandOver(1, h.Device(app::EVENT_CFG, "C (COM2)", "cfg"));
    h.HandOver(2, h.Device(app::EVENT_SPRD, "S (COM3)", "sprd"));
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->slots.fpJob[1] == 1 && h.Result(2) == "OnSwith"; }));
    ASSERT_TRUE(h.RunUntil([&] { return h.State(2) == app::BIND_BUSY && h.Result(2) == "Ongoing"; }));  // phase 2
    for (int i = 0; i < 3; ++i) h.manager->WorkerAt(i)->Stop();
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Total() >= 2; }));
    EXPECT_LT(h.fx.clock.Now(), 600000);  // the long jobs ended early, counted as failed
    EXPECT_EQ(h.fx.station->statistics.Fail(), 2u);
    EXPECT_EQ(h.Result(0), "FAIL(0/1)");
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Total() == 3; }));
    EXPECT_EQ(h.Result(2), "PASS(1/1)");  // the SPRD job ran to its end
    ASSERT_TRUE(h.RunUntil([&] { return !h.manager->WorkerAt(2)->IsRunning(); }));
}

TEST(DownloadWorkerJobs, DeviceHandedOverBeforeStartIsServedAtStart) {
    EngineHarness h(1);
    h.HandOver(0, h.Device(app::EVENT_MTK, "M (COM1)", "m"));
    EXPECT_EQ(h.manager->WorkerAt(0)->LastNotifyCode(), 2u);
    h.Settle();
    EXPECT_EQ(h.fx.station->statistics.Total(), 0u);
    h.StartStation();
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Total() == 1; }));
    EXPECT_EQ(h.Result(0), "PASS(1/1)");
}

TEST(DownloadWorkerJobs, RemovalGreysThePortAndReleasesCfgSlots) {
    EngineHarness h(2);
    h.fx.station->stationRunning = true;
    h.HandOver(0, h.Device(app::EVENT_MTK, "Gadget (COM1)", "g"));
    EXPECT_EQ(h.fx.station->slotList.CellText(0, app::COL_DEVICE), "(COM1)Gadget ");
    EXPECT_EQ(h.fx.station->bindings.ComName(0), "(COM1)Gadget ");
    bool found = false;
    h.loop.Call([&] { found = h.manager->SignalRemoval("GADGET (com1)"); });
    EXPECT_TRUE(found);
    auto row = h.fx.station->slotList.Row(0);
    EXPECT_EQ(row.cells[app::COL_DEVICE].colour, kColourGrey);
    EXPECT_EQ(row.cells[app::COL_DEVICE].icon, kIconPort);
    EXPECT_EQ(h.State(0), app::BIND_ALL_BINDED);  // not a CFG package: unchanged

    h.fx.station->package.kind = app::PACKAGE_MTK_CFG;
    h.fx.station->slots.fpJob[0] = 1;
    h.loop.Call([&] { h.manager->WorkerAt(0)->NotifyDevice(NOTIFY_REMOVED, ""); });
    EXPECT_EQ(h.State(0), app::BIND_ALL_BINDED);
    EXPECT_EQ(h.fx.station->slotList.Row(0).cells[app::COL_DEVICE].colour, app::kBlack);
    h.fx.station->slots.fpJob[0] = 2;
    h.loop.Call([&] { h.manager->WorkerAt(0)->NotifyDevice(NOTIFY_REMOVED, ""); });
    EXPECT_EQ(h.State(0), app::BIND_BUSY);
    h.loop.Call([&] { found = h.manager->SignalRemoval("nobody"); });
    EXPECT_FALSE(found);
}

TEST(DownloadWorkerPackage, VersionTextAndPreLoad) {
    EngineHarness probe(0);
    RecordingFactory factory(probe.sim, 0);
    EngineHarness h(1, &factory);
    std::string text = "keep";
    h.manager->PackageVersionText(3, text);
    EXPECT_EQ(text, "keep");
    h.manager->PackageVersionText(1, text);
    EXPECT_EQ(text, "1.0");
    static_cast<RecordingMtk&>(h.manager->WorkerAt(0)->Mtk()).version = "V1.0";
    h.manager->PackageVersionText(1, text);
    EXPECT_EQ(text, "");
    h.fx.station->package.kind = app::PACKAGE_MTK_SCATTER;
    EXPECT_EQ(h.manager->PreLoadPackage(), 0);

    RecordingFactory failing(probe.sim, 1);
    EngineHarness f(1, &failing);
    f.fx.station->package.kind = app::PACKAGE_MTK_SCATTER;
    EXPECT_EQ(f.manager->PreLoadPackage(), -1);
    EXPECT_EQ(f.fx.ui.Messages(),
              std::vector<std::string>{"PreLoadFiles failed,please check scatter file or DA files"});
}

}  // namespace
}  // namespace quorvel::engine

namespace quorvel::engine {
namespace {

TEST(DownloadWorkerJobs, ArrivalOfTheSamePhoneDuringAnMtkJobStartsNoSecondJob) {
    test::EngineHarness h(1);
    h.StartStation();
    h.HandOver(0, h.Device(app::EVENT_MTK, "MediaTek PreLoader (COM1)", "p"));
    ASSERT_TRUE(h.RunUntil([&] { return h.State(0) == app::BIND_DA_BINDED; }));
    h.HandOver(0, h.Device(app::EVENT_MTK, "MediaTek DA USB VCOM (COM1)", "p"));  // now in DA mode
    EXPECT_EQ(h.Result(0), "Ongoing");
    ASSERT_TRUE(h.RunUntil([&] { return h.fx.station->statistics.Total() == 1; }));
    h.fx.clock.Advance(60000);
    h.Settle();
    EXPECT_EQ(h.fx.station->statistics.Total(), 1u);
    EXPECT_EQ(h.Result(0), "PASS(1/1)");
}

}  // namespace
}  // namespace quorvel::engine
