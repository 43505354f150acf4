// Engine programs run as child processes: the protocol's outcomes and faults, cancel
// and kill, crash isolation between slots, no zombie or descriptor after many jobs,
// replay of a recorded session and the package-wide operations. The programs run in
// real time.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "EngineHarness.h"
#include "app/Messages.h"
#include "app/Station.h"
#include "console/MessageRouter.h"
#include "engine/DownloadManager.h"
#include "engine/ProgramEngineFactory.h"
#include "engine/ProgramJob.h"
#include "platform/ExeDir.h"
#include "platform/StationLoop.h"
#include "support/TempDir.h"

namespace quorvel::engine {
namespace {

std::string SimEngine() {
    return platform::ExeDir() + "../tools/quorvel-sim-engine/quorvel-sim-engine";
}

int OpenFds() {
    int n = 0;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        while (::readdir(d)) ++n;
        ::closedir(d);
    }
    return n;
}

// True when this process has no child at all, not even a zombie.
bool NoChildren() {
    errno = 0;
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

std::vector<std::string> Args(std::initializer_list<std::string> extra) {
    std::vector<std::string> a{SimEngine(), "--time-scale", "50", "--duration", "500", "--size", "4096"};
    a.insert(a.end(), extra);
    return a;
}

// One event as text, to compare whole runs.
std::string Describe(const protocol::Event& e) {
    std::ostringstream s;
    s << e.type << ':' << e.step << ':' << e.key << e.text << ':' << (e.done ? *e.done : 0) << '/'
      << (e.total ? *e.total : 0) << ':' << (e.percent ? *e.percent : -1);
    return s.str();
}

struct JobRun {
    JobOutcome outcome;
    std::vector<std::string> events;
};

JobRun RunJob(platform::Clock& clock, JobRequest request) {
    ProgramJob job(clock);
    JobRun run;
    run.outcome = job.Run(request, [&](const protocol::Event& e) { run.events.push_back(Describe(e)); });
    return run;
}

TEST(EngineProgram, OutcomesAndFaults) {
    struct Case {
        const char* name;
        std::vector<std::string> argv;
        JobOutcome::Kind kind;
        const char* text;  // contained in the outcome's text
    };
    const Case cases[] = {
        {"pass", Args({}), JobOutcome::PASSED, ""},
        {"fail", Args({"--fail-step", "2"}), JobOutcome::FAILED, ""},
        {"sprd fail", Args({"--platform", "SPRD", "--phase", "2", "--fail-step", "4"}), JobOutcome::FAILED,
         "Connecting failed"},
        {"crash", Args({"--misbehave", "crash"}), JobOutcome::FAULT, "crashed (signal 11)"},
        {"garbage", Args({"--misbehave", "garbage"}), JobOutcome::FAULT, "wrote garbage"},
        {"no result", Args({"--misbehave", "no-result"}), JobOutcome::FAULT, "exited with code 3 without a result"},
        {"silent", Args({"--misbehave", "silent"}), JobOutcome::FAULT, "silent for"},
        {"wrong version", Args({"--protocol", "2"}), JobOutcome::FAULT,
         "speaks protocol version 2, the station speaks 1"},
        {"no hello", Args({"--misbehave", "no-hello"}), JobOutcome::FAULT, "before its hello"},
        {"missing program", {"/nonexistent/flasher"}, JobOutcome::FAULT, "could not start: No such file"},
    };
    platform::SystemClock clock;
    test::TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // Silence 1.5 s: a crash report under a sanitizer takes a while.
        JobRequest request{c.argv, dir.Path() + "logs/" + c.name + ".log", 1500, 200, false};
        const JobRun run = RunJob(clock, request);
        EXPECT_EQ(run.outcome.kind, c.kind);
        EXPECT_NE(run.outcome.text.find(c.text), std::string::npos) << run.outcome.text;
        if (c.kind == JobOutcome::FAULT) {
            EXPECT_NE(dir.Read("logs/" + std::string(c.name) + ".log").find(c.text), std::string::npos);
        }
    }
    // The free text and the standard error of the program went to its log.
    const std::string log = dir.Read("logs/pass.log");
    EXPECT_NE(log.find("simulated engine started"), std::string::npos);
    EXPECT_NE(log.find("quorvel-sim-engine: MTK job"), std::string::npos);
    EXPECT_TRUE(NoChildren());
}

// Cancel ends a cooperating program with SIGTERM, and one that ignores it with SIGKILL.
TEST(EngineProgram, CancelEndsTheProgramAndItsGroup) {
    platform::SystemClock clock;
    for (const char* mode : {"silent", "ignore-term"}) {
        SCOPED_TRACE(mode);
        ProgramJob job(clock);
        std::thread cancel([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            job.Cancel();
        });
        const JobRequest request{Args({"--misbehave", mode}), "", 60000, 200, false};
        EXPECT_EQ(job.Run(request, [](const protocol::Event&) {}).kind, JobOutcome::CANCELLED);
        cancel.join();
        EXPECT_TRUE(NoChildren());
        // Cancelled before it starts: the next run ends at once until Reset.
        EXPECT_EQ(job.Run(request, [](const protocol::Event&) {}).kind, JobOutcome::CANCELLED);
    }
}

TEST(EngineProgram, ThousandJobsLeaveNoZombieAndNoDescriptor) {
    platform::SystemClock clock;
    const int fdsBefore = OpenFds();
    std::atomic<int> passed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            ProgramJob job(clock);
            const char* outcome = t % 2 ? "--fail" : "--no-switch";
            const JobRequest request{{SimEngine(), "--duration", "0", "--speed", "0", outcome}, "", 10000, 1000, false};
            for (int i = 0; i < 250; ++i) {
                const auto kind = job.Run(request, [](const protocol::Event&) {}).kind;
                passed += kind == (t % 2 ? JobOutcome::FAILED : JobOutcome::PASSED) ? 1 : 0;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(passed.load(), 1000);
    EXPECT_EQ(OpenFds(), fdsBefore);
    EXPECT_TRUE(NoChildren());
}

TEST(EngineProgram, RecordedSessionReplaysTheSameEvents) {
    platform::SystemClock clock;
    test::TempDir dir;
    const std::string log = dir.Path() + "rec.log";
    // Every progress line handed on, so both runs see all of them.
    const JobRun recorded = RunJob(clock, {Args({"--fail-step", "2"}), log, 5000, 1000, true, 0});
    ASSERT_EQ(recorded.outcome.kind, JobOutcome::FAILED);
    const JobRun replayed = RunJob(
        clock, {{SimEngine(), "--replay", log, "--time-scale", "50"}, dir.Path() + "replay.log", 5000, 1000, false, 0});
    EXPECT_EQ(replayed.outcome.kind, JobOutcome::FAILED);
    EXPECT_EQ(replayed.events, recorded.events);
    EXPECT_GT(recorded.events.size(), 5u);
}

// A program writing progress far faster than a row shows it: at most one hand-on per
// interval, and the last one is the newest, before the result.
TEST(EngineProgram, FastProgressIsThinnedToTheNewest) {
    platform::SystemClock clock;
    const platform::Millis start = clock.Now();
    const JobRun run = RunJob(clock, {Args({"--time-scale", "1", "--progress-rate", "2000"}), "", 5000, 1000, false});
    const platform::Millis elapsed = clock.Now() - start;
    ASSERT_EQ(run.outcome.kind, JobOutcome::PASSED);
    std::vector<std::string> progress;
    for (const auto& e : run.events)
        if (e.rfind(std::to_string(protocol::Event::PROGRESS) + ":", 0) == 0) progress.push_back(e);
    ASSERT_GE(progress.size(), 2u);
    EXPECT_LE(progress.size(), static_cast<std::size_t>(elapsed / 20 + 3));  // of some 800 lines
    protocol::Event last;
    last.type = protocol::Event::PROGRESS;
    last.done = last.total = 4096u;
    last.percent = 100;
    EXPECT_EQ(progress.back(), Describe(last));
}

// Pre-load and verification run the program's --preload and --verify; a program without
// them leaves them to the in-process engine. A program's failure is said with its own
// reason in the notice pane and the log, not only blamed on the package.
TEST(EngineProgram, PackageOperationsRunTheProgramOrFallBack) {
    test::TempDir dir;
    dir.Write("fw/scatter.txt", "scatter\n");
    dir.Write("fw/boot.img", "0123456789");
    dir.Write("fw/CheckSum.ini", "[x]\n");
    dir.Write("plain.sh", "#!/bin/sh\necho \"usage: plain.sh PORT\"\nexit 2\n");
    dir.Write("garbage.sh", "#!/bin/sh\necho '{\"t\":\"hello\",\"protocol\":1,\"program\":\"g\"}'\necho '{\"t\":'\n");
    for (const char* script : {"plain.sh", "garbage.sh"})
        std::filesystem::permissions(dir.File(script), std::filesystem::perms::owner_all);
    struct Case {
        std::string program, scatter;
        int preload;  // 0: passed
        int verify;   // 1: passed
        std::string preloadSaid, verifySaid;  // in the notice pane and the log; empty: nothing
    };
    // The program's answers differ from what the in-process engine would say.
    const Case cases[] = {
        {SimEngine() + " --package {package}", dir.File("fw/scatter.txt"), 0, 1, "", ""},
        {SimEngine() + " --package " + dir.File("fw/other.txt") + " --fail", dir.File("fw/scatter.txt"), 1, 0,
         "): cannot open " + dir.File("fw/other.txt"), "): checksum mismatch"},
        {dir.File("plain.sh") + " {port}", dir.File("fw/scatter.txt"), 0, 1, "", ""},  // the in-process engine's
        {dir.File("garbage.sh"), dir.File("fw/scatter.txt"), 1, 0, "MTK engine program --preload failed (",
         "--verify failed (" + dir.File("garbage.sh") + "): engine program wrote garbage"},
    };
    platform::SystemClock clock;
    app::HeadlessConsoleUi ui;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program + " " + c.scatter);
        dir.Write("Config/CommonSetting.ini", "[ENGINES]\nMTK=" + c.program + "\n");
        app::Station st(test::FixedOptions(dir.Path()), clock, ui);
        st.package.scatterFilePath = c.scatter;
        SimPhoneRegistry registry;
        SimEngineFactory sim{st, registry};
        ProgramEngineFactory programs(st, sim);
        test::ChecksumWindow window;
        auto mtk = programs.MakeMtk(window);
        std::string path = c.scatter;
        const auto said = [&](const std::string& want) {
            const std::string notice = st.view.Notice();
            EXPECT_EQ(notice.empty(), want.empty()) << notice;
            EXPECT_NE(notice.find(want), std::string::npos) << notice;
            std::string log;
            for (const auto& f : std::filesystem::directory_iterator(dir.Path())) {
                if (f.path().string().ends_with("UILog.txt")) log += dir.Read(f.path().filename().string());
            }
            if (!want.empty()) {
                EXPECT_NE(log.find(notice), std::string::npos) << log;
            }
        };
        EXPECT_EQ(mtk->PreLoadFiles(path.data(), true, 0, 0, {}, false), c.preload);
        said(c.preloadSaid);
        mtk->SetChkSumWnd(&window);
        EXPECT_EQ(mtk->VerifyHostBufferBeforeStart(dir.File("fw/CheckSum.ini").c_str()), c.verify);
        said(c.verifySaid);
        for (const auto& f : std::filesystem::directory_iterator(dir.Path()))
            if (f.path().string().ends_with("UILog.txt")) std::filesystem::remove(f.path());
        if (c.program.find("garbage") != std::string::npos) continue;
        // Both engines report every file beside the list, the program through its progress lines.
        ASSERT_FALSE(window.Seen().empty());
        EXPECT_EQ(window.Seen().back(), dir.File("fw/scatter.txt") + " 100");
    }
}

// A station of sixteen slots whose engines are programs of [ENGINES], in real time.
class ProgramStation : public platform::MessageHandler {
public:
    ProgramStation(int slots, const std::string& engines) {
        dir.Write("Config/CommonSetting.ini", "[COMMON]\n[ENGINES]\n" + engines);
        st->language.SetLanguageId(app::kLangEnglish + 1);
        programs = std::make_unique<ProgramEngineFactory>(*st, sim, [this](const SwitchEvent& e) { OnSwitch(e); });
        manager = std::make_unique<DownloadManager>(*st, loop, *programs);
        router = std::make_unique<console::MessageRouter>(*st, *manager);
        test::AddBoundWorkers(*st, *manager, slots);
        loop.SetHandler(this);
        loop.Start();
        st->stationRunning = true;
        manager->SetState(Ready);
        loop.Call([&] { manager->StartAll(); });
    }
    ~ProgramStation() override {
        for (auto& t : replugs_) t.join();
        loop.Stop();
        manager->JoinWalks();
        manager.reset();
    }

    platform::LResult HandleMessage(std::uint32_t msg, platform::WParam w, platform::LParam l) override {
        platform::LResult r = 0;
        router->Route(msg, w, l, r);
        return r;
    }
    void OnTimer(int id) override { router->RouteTimer(id); }

    void HandOver(int slot, std::uint32_t type, const std::string& name, const std::string& id) {
        app::DeviceInfo d{};
        d.type = type;
        app::CopyField(d.friendlyName, name);
        app::CopyField(d.instanceId, id);
        loop.PostTask([this, slot, d] {
            manager->WorkerAt(slot)->SetThreadIndex(slot);
            manager->WorkerAt(slot)->AcceptDevice(d);
        });
    }
    // As the bench does: an SPRD phone that switched comes back on its download port
    // once it has re-enumerated.
    void OnSwitch(const SwitchEvent& e) {
        if (e.kind != SwitchEvent::SPRD_TO_DOWNLOAD_PORT) return;
        std::lock_guard g(mutex_);
        replugs_.emplace_back([this, port = e.comPort] {
            clock.Sleep(1500);
            HandOver(static_cast<int>(port) - 1, app::EVENT_SPRD, "SPRD DL (COM" + std::to_string(port) + ")", "dl");
        });
    }
    bool WaitFor(const std::function<bool()>& done) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done()) {
            if (std::chrono::steady_clock::now() > limit) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

    test::TempDir dir;
    platform::ScaledClock clock{5};
    app::HeadlessConsoleUi ui;
    std::unique_ptr<app::Station> st = std::make_unique<app::Station>(test::FixedOptions(dir.Path()), clock, ui);
    platform::StationLoop loop{clock};
    SimPhoneRegistry registry;
    SimEngineFactory sim{*st, registry};
    std::unique_ptr<ProgramEngineFactory> programs;
    std::unique_ptr<DownloadManager> manager;
    std::unique_ptr<console::MessageRouter> router;

private:
    std::mutex mutex_;
    std::vector<std::thread> replugs_;
};

// One slot's program segfaults while fifteen others pass; SPRD phones go through both
// phases on the program as well.
TEST(EngineProgram, CrashFailsOnlyItsOwnSlot) {
    const std::string sim = SimEngine() + " --time-scale 5 --duration 1500 --size 1048576 --sprd-phase1 600";
    ProgramStation s(16, "MTK=" + sim + " --device {device} --misbehave crash@phone5 {options}\nSPRD=" + sim +
                             " --platform SPRD --phase {phase} --files {files}\n");
    ASSERT_TRUE(s.WaitFor([&] { return s.manager->WorkerAt(15)->IsRunning(); }));
    for (int slot = 0; slot < 16; ++slot) {
        const std::string port = "(COM" + std::to_string(slot + 1) + ")";
        if (slot % 4 == 3)
            s.HandOver(slot, app::EVENT_SPRD, "SPRD U2S Diag " + port, "sprd" + std::to_string(slot));
        else
            s.HandOver(slot, app::EVENT_MTK, "MTK PreLoader " + port, "phone" + std::to_string(slot));
    }
    ASSERT_TRUE(s.WaitFor([&] { return s.st->statistics.Total() == 16; }))
        << s.st->slotList.ResultText(3) << " | " << s.st->slotList.Row(3).progress.text;
    EXPECT_EQ(s.st->statistics.Fail(), 1u);
    for (int slot = 0; slot < 16; ++slot) {
        SCOPED_TRACE(slot);
        EXPECT_EQ(s.st->slotList.ResultText(slot), slot == 5 ? "FAIL(0/1)" : "PASS(1/1)");
    }
    EXPECT_NE(s.st->slotList.Row(5).progress.text.find("engine program crashed (signal 11)"), std::string::npos)
        << s.st->slotList.Row(5).progress.text;
    EXPECT_NE(s.st->slotList.Row(0).progress.text.find("Download Completely!"), std::string::npos)
        << s.st->slotList.Row(0).progress.text;
}

}  // namespace
}  // namespace quorvel::engine
