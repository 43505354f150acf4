// Engine programs run as child processes: the protocol's outcomes and faults, cancel
// and kill, no zombie or descriptor after many jobs, replay of a recorded session and
// the package-wide operations. The programs run in real time.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "console/ProgramEngineFactory.h"
#include "engines/program/ProgramContext.h"
#include "engines/program/ProgramJob.h"
#include "platform/ChildProcess.h"
#include "platform/ExeDir.h"
#include "slots/EngineHarness.h"
#include "station/Station.h"
#include "support/FixedOptions.h"
#include "support/Golden.h"
#include "support/SmallDisk.h"
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

// "ARGS" of the simulated engine program (or "/path ..." of another) -> how its job ended
// and, for a fault, whether the job's log says so. "cancel ARGS": cancelled 150 ms in,
// whether a child is left, and a second run of the same job.
TEST(EngineProgram, OutcomesAndFaults) {
    platform::SystemClock clock;
    test::TempDir dir;
    int job = 0;
    static const char* const kKinds[] = {"passed", "failed", "cancelled", "fault"};
    EXPECT_TRUE(test::MatchesCaseGolden("engine-program/outcomes.txt", [&](const std::string& line) {
        const bool cancel = line.rfind("cancel ", 0) == 0;
        std::vector<std::string> argv = line[0] == '/' ? std::vector<std::string>{} : Args({});
        std::istringstream words(line.substr(cancel ? 7 : 0));
        for (std::string w; words >> w;) argv.push_back(w);
        // Silence 1.5 s: a crash report under a sanitizer takes a while.
        const std::string log = "logs/" + std::to_string(++job) + ".log";
        const JobRequest request{argv, dir.Path() + log, cancel ? 60000 : 1500, 200, false};
        ProgramJob program(clock);
        std::thread canceller([&] {
            if (!cancel) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            program.Cancel();
        });
        const JobOutcome outcome = program.Run(request, [](const protocol::Event&) {});
        canceller.join();
        std::string said = kKinds[outcome.kind] + (outcome.text.empty() ? "" : ": " + outcome.text);
        if (outcome.kind == JobOutcome::FAULT)
            said += dir.Read(log).find(outcome.text) == std::string::npos ? "\nnot in its log" : "\nin its log";
        if (cancel)
            said += std::string(NoChildren() ? "\nno child left" : "\na child left") +
                    "\nrun again: " + kKinds[program.Run(request, [](const protocol::Event&) {}).kind];
        return said;
    }));
    // The free text and the standard error of the program went to its log.
    const std::string log = dir.Read("logs/1.log");
    EXPECT_NE(log.find("simulated engine started"), std::string::npos);
    EXPECT_NE(log.find("quorvel-sim-engine: MTK job"), std::string::npos);
    EXPECT_TRUE(NoChildren());
}

// A thousand jobs; under a sanitizer, whose engine programs start ten times slower, 240.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kJobsPerThread = 60;
#else
constexpr int kJobsPerThread = 250;
#endif

TEST(EngineProgram, ManyJobsLeaveNoZombieAndNoDescriptor) {
    platform::SystemClock clock;
    const int fdsBefore = OpenFds();
    std::atomic<int> passed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            ProgramJob job(clock);
            const char* outcome = t % 2 ? "--fail" : "--no-switch";
            const JobRequest request{{SimEngine(), "--duration", "0", "--speed", "0", outcome}, "", 10000, 1000, false};
            for (int i = 0; i < kJobsPerThread; ++i) {
                const auto kind = job.Run(request, [](const protocol::Event&) {}).kind;
                passed += kind == (t % 2 ? JobOutcome::FAILED : JobOutcome::PASSED) ? 1 : 0;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(passed.load(), 4 * kJobsPerThread);
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

// "[ENGINES] MTK=" lines, each with the pre-load and verification of one package: a
// program with --preload and --verify runs them, one without leaves them to the
// in-process engine, and a program's failure is said with its own reason.
TEST(EngineProgram, PackageOperationsRunTheProgramOrFallBack) {
    test::TempDir dir;
    dir.Write("fw/scatter.txt", "scatter\n");
    dir.Write("fw/boot.img", "0123456789");
    dir.Write("fw/CheckSum.ini", "[x]\n");
    const test::Scrubs scrubs{
        {SimEngine(), "$SIM"}, {test::SourcePath("tests/engines/programs/"), "$PROGRAMS/"}, {dir.Path(), "$DIR/"}};
    platform::SystemClock clock;
    EXPECT_TRUE(test::MatchesCaseGolden("engine-program/package-operations.txt", [&](const std::string& line) {
        std::string program = line;
        for (const auto& [real, shown] : scrubs) program = test::Scrub(program, {{shown, real}});
        dir.Write("Config/CommonSetting.ini", "[ENGINES]\nMTK=" + program + "\n");
        app::Station st(test::FixedOptions(dir.Path()), clock);
        st.package.scatterFilePath = dir.File("fw/scatter.txt");
        SimPhoneRegistry registry;
        SimEngineFactory sim{st, registry};
        ProgramEngineFactory programs(st, sim);
        test::ChecksumWindow window;
        auto mtk = programs.MakeMtk(window);
        std::string out, path = st.package.scatterFilePath;
        const auto said = [&](const char* what, int result) {
            std::string log;
            for (const auto& f : std::filesystem::directory_iterator(dir.Path()))
                if (f.path().string().ends_with("UILog.txt")) log += dir.Read(f.path().filename().string());
            const std::string notice = st.view.Notice();
            out += what + std::to_string(result) + (notice.empty() ? "" : ": " + notice);
            out += notice.empty() || log.find(notice) != std::string::npos ? "\n" : " (not in the log)\n";
        };
        said("pre-load ", mtk->PreLoadFiles(path.data(), true, 0, 0, {}, false));
        mtk->SetChkSumWnd(&window);
        said("verify ", mtk->VerifyHostBufferBeforeStart(dir.File("fw/CheckSum.ini").c_str()));
        for (const auto& f : std::filesystem::directory_iterator(dir.Path()))
            if (f.path().string().ends_with("UILog.txt")) std::filesystem::remove(f.path());
        return test::Scrub(out + "checksum window: " + (window.Seen().empty() ? "nothing" : window.Seen().back()),
                           scrubs);
    }));
}

// True once `pid` is gone or a zombie: killed, whoever reaps it.
bool Gone(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(in, stat)) return true;
    const auto paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z';
}

// Signals are delivered asynchronously: waits, with a generous limit, for `pid` to go.
bool AwaitGone(pid_t pid) {
    for (int i = 0; i < 500 && !Gone(pid); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return Gone(pid);
}

// The pid a script wrote into `path`, once it is there.
pid_t AwaitPid(const std::string& path) {
    for (int i = 0; i < 500; ++i) {
        std::ifstream in(path);
        std::string line;
        if (std::getline(in, line) && in.good()) return static_cast<pid_t>(std::stol(line));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return -1;
}

// A child that leaves the program's process group ends with the job; a station killed
// by any signal takes its program along, and what left the group goes at the next start.
TEST(EngineProgram, NothingOutlivesItsJobOrItsStation) {
    test::TempDir dir;
    const std::string running = dir.File("running");
    const std::string escape = "setsid sleep 300 & echo $! > " + dir.File("escapee") + "; ";
    {
        std::string error;
        auto child = platform::ChildProcess::Spawn({"/bin/sh", "-c", escape + "exit 0"}, false, error, running);
        ASSERT_TRUE(child) << error;
        child->Reap();
        EXPECT_TRUE(AwaitGone(AwaitPid(dir.File("escapee"))));
        EXPECT_TRUE(std::filesystem::is_empty(running));
    }
    std::filesystem::remove(dir.File("escapee"));
    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    const std::string holder = platform::ExeDir() + "engine_holder";
    const pid_t station = ::fork();
    if (station == 0) {
        ::dup2(out[1], 1);
        ::execl(holder.c_str(), holder.c_str(), running.c_str(), "/bin/sh", "-c", (escape + "sleep 300").c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    char line[32] = {};
    ASSERT_GT(::read(out[0], line, sizeof line - 1), 0) << holder;
    ::close(out[0]);
    const pid_t program = static_cast<pid_t>(std::atol(line));
    const pid_t escapee = AwaitPid(dir.File("escapee"));
    ASSERT_GT(escapee, 0);
    ::kill(station, SIGKILL);
    ::waitpid(station, nullptr, 0);
    EXPECT_TRUE(AwaitGone(program));
    EXPECT_FALSE(Gone(escapee));
    EXPECT_GE(platform::ChildProcess::EndLeftovers(running), 1);
    EXPECT_TRUE(AwaitGone(escapee));
    EXPECT_TRUE(std::filesystem::is_empty(running));
}

// Rows of a {files} list (" ; " between rows, " | " between fields): values cannot add
// fields or rows, and a list that cannot be written whole fails the job before its
// program starts.
TEST(EngineProgram, JobInputsThatCannotBeHandedOnFailTheJob) {
    platform::ManualClock clock;
    const auto make = [&](const std::string& folder, const FileRows& rows, std::string& error) {
        app::Station st(test::FixedOptions(folder), clock);
        ProgramContext context(st, ProgramSettings{});
        JobRequest request;
        const bool made =
            context.MakeJob("flash --files {files}", "SPRD", -1, {{"port", "5"}}, {}, &rows, request, error);
        return made ? request.argv.back() : std::string();
    };
    const auto split = [](const std::string& text, const std::string& by) {
        std::vector<std::string> parts;
        for (std::size_t at = 0;;) {
            const std::size_t next = text.find(by, at);
            parts.push_back(text.substr(at, next - at));
            if (next == std::string::npos) return parts;
            at = next + by.size();
        }
    };
    FileRows first;
    EXPECT_TRUE(test::MatchesCaseGolden("engine-program/file-lists.txt", [&](const std::string& line) {
        FileRows rows;
        for (const auto& row : split(test::Scrub(line, {{"\\t", "\t"}, {"\\n", "\n"}, {"\\r", "\r"}}), " ; "))
            rows.push_back(split(row, " | "));
        if (first.empty()) first = rows;
        test::TempDir dir;
        std::string error;
        const std::string list = make(dir.Path(), rows, error);
        return list.empty() ? "refused: " + error : test::Printable(dir.Read(list.substr(dir.Path().size())));
    }));
    test::SmallDisk disk;
    if (!disk.Ready()) GTEST_SKIP() << disk.Reason();
    disk.Fill();
    std::string error;
    EXPECT_EQ(make(disk.Path(), first, error), "");
    EXPECT_NE(error.find("file list not written"), std::string::npos) << error;
}

// One chatty program's log keeps its first and last megabyte and says what was cut
// between; old logs go by age, then the oldest until the rest fit.
TEST(EngineProgram, JobLogKeepsHeadAndTailAndOldLogsGo) {
    platform::SystemClock clock;
    test::TempDir dir;
    const std::string chatter = "echo first >&2; yes chatter | head -n 400000 >&2; echo last >&2";
    RunJob(clock, {{"/bin/sh", "-c", chatter}, dir.File("chatty.log"), 60000, 200, false});
    const std::string log = dir.Read("chatty.log");
    EXPECT_LE(log.size(), kLogHeadBytes + kLogTailBytes + 1024);
    EXPECT_NE(log.find("first\n"), std::string::npos);
    EXPECT_NE(log.find("bytes of this log cut here ...\nchatter\n"), std::string::npos);
    EXPECT_NE(log.find("last\n# fault: engine program exited with code 0"), std::string::npos);

    const std::int64_t now = 2000000000;
    const struct {
        const char* name;
        std::int64_t age;
        bool kept;
    } files[] = {{"MTK_old.log", 31 * 86400, false},
                 {"SPRD_a.files", 60, true},
                 {"MTK_b.log", 120, true},
                 {"MTK_c.log", 180, false},  // over the size once the newer ones are kept
                 {"notes.txt", 31 * 86400, true}};
    for (const auto& f : files) {
        dir.Write("engine/" + std::string(f.name), "1234");
        const timespec times[2] = {{now - f.age, 0}, {now - f.age, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, dir.File("engine/" + std::string(f.name)).c_str(), times, 0), 0);
    }
    EXPECT_EQ(CleanEngineLogs(dir.File("engine"), now, 30 * 86400, 8), 2);
    for (const auto& f : files)
        EXPECT_EQ(std::filesystem::exists(dir.File("engine/" + std::string(f.name))), f.kept) << f.name;
}

}  // namespace
}  // namespace quorvel::engine
