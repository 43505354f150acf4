// Every job counted once: one seeded generator drives the whole station, headless and in
// virtual time, through random but repeatable runs of Start/Stop presses (also inside one
// 100 ms step of the start walk, and clicks queued back to back), phones of one platform
// plugged, pulled and swapped, jobs that fail at any step, and a close that kills the jobs
// still running. Checked on the way: nothing hangs, the workers follow the button, the
// counters hold exactly the jobs the engines finished and no slot stays BUSY without a
// job. Checked at the end, from the history: every job ended once (no id twice), the
// counted ones add up to the counters saved and shown (pass + fail), and the close
// counted nothing.
//
// A run is a platform, a seed, a number of sockets and a pace (the longest pause between
// two steps). A failure prints its run; QUORVEL_COUNT_SEED=n replays that seed.
// QUORVEL_COUNT_SOAK=n adds n seeds per platform and pace; QUORVEL_COUNT_STEPS=n sets the
// steps per run; QUORVEL_COUNT_PLATFORMS=SPRD (or MTK, CFG, a list) narrows the runs.
// A seed fixes the presses and phones; the threads' interleaving still varies.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include <unistd.h>

#include "console/ScenarioStation.h"
#include "history/JobHistoryReader.h"
#include "platform/ProfileIni.h"
#include "sim/SimBench.h"
#include "sim/SimEngines.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "support/StationFixture.h"
#include "support/TempDir.h"

namespace quorvel::console {
namespace {

using namespace app;
using platform::Millis;
using Clock = std::chrono::steady_clock;

int EnvOr(const char* name, int fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::atoi(v) : fallback;
}

struct Plan {
    sim::PhoneKind kind;
    const char* platform;
    const char* package;  // as a scenario's "set package" names it
    unsigned seed;
    int sockets;
    Millis pace;  // the longest pause between two steps
    int steps;
};

std::string Describe(const Plan& run) {
    return std::string(run.platform) + " seed " + std::to_string(run.seed) + ", " + std::to_string(run.sockets) +
           " sockets, pace " + std::to_string(run.pace) + " ms, " + std::to_string(run.steps) + " steps";
}

class Storm {
public:
    explicit Storm(const Plan& run) : kind_(run.kind), sockets_(run.sockets), pace_(run.pace), random_(run.seed) {
        const int hubs = sockets_ > 8 ? 2 : 1;
        dir_.Write(
            "Config/CommonSetting.ini",
            test::UnboundSettings("CheckSum=0\nLANGUAGE=2052\n[BENCH]\nSimulated=1\nHubs=" + std::to_string(hubs) +
                                  "\nSocketsPerHub=" + std::to_string(sockets_ / hubs) + "\n"));
        std::string why;
        ready_ = host_->Set("", "package", run.package, why) && host_->Up(why);
    }

    ~Storm() {
        if (host_ && host_->Now()) Close();
    }

    bool Ready() const { return ready_; }
    std::uint32_t Jobs() const { return jobs_; }
    const std::string& Failure() const { return failure_; }

    // One random step, then the checks. False once something failed.
    bool Step(int step) {
        step_ = step;
        const auto action = random_() % 10;
        if (action < 2) {
            // Clicks, sometimes two or three queued while the station thread is busy.
            const int clicks = random_() % 3 == 0 ? 2 + static_cast<int>(random_() % 2) : 1;
            for (int i = 0; i < clicks; ++i) P().loop.Post(Command{CommandId::START_STOP});
        } else if (action < 5) {
            Plug(static_cast<int>(random_() % sockets_));
        } else if (action == 5) {
            Bench().Unplug(static_cast<int>(random_() % sockets_));
        } else if (action == 7) {
            // A batch, a phone on every socket 150 ms apart: phones that switch together.
            for (int socket = 0; socket < sockets_; ++socket) {
                Plug(socket);
                if (!Run(150)) return false;
            }
        } else if (action == 6) {
            // A phone swapped for another at once: its removal and the new arrival overlap.
            const int socket = static_cast<int>(random_() % sockets_);
            Bench().Unplug(socket);
            Plug(socket);
        }
        // Offsets of a few ms land presses inside the walk's 100 ms steps.
        if (!Run(static_cast<Millis>(random_() % pace_))) return false;
        return CheckWorkers() && (step % 20 != 19 || CheckCounters());
    }

    // Closes the station while a job runs; no counter may be written by it.
    bool CloseMidJob() {
        // Free sockets first: pulling phones out of a running station may end the run.
        for (int s = 0; s < sockets_; ++s) Bench().Unplug(s);
        if (!Run(3000)) return false;
        // Presses Start/Stop at most every 5 s of bench time while the station is stopped.
        Millis pressed = -10000;
        const auto start = [&] {
            if (P().station.stationRunning || clock_.Now() - pressed < 5000) return;
            P().loop.Post(Command{CommandId::START_STOP});
            pressed = clock_.Now();
        };
        if (!RunUntil([&] { return P().station.stationRunning.load(); }, 60000, start))
            return Fail("the station does not start for the close; " + Slots());
        for (int s = 0; s < sockets_; ++s) Plug(s, 60000);
        // The run may end by itself meanwhile (an idle station whose phone left): start it again.
        if (!RunUntil([&] { return P().station.stationRunning && AnySlotBusy(); }, 120000, start))
            return Fail("no job started for the close; " + Slots());
        // The close saves the bindings and stops the loop, which may have to finish a
        // handler that sleeps; from then on virtual time stands still, so every job
        // that ends does so because the close cut it short.
        std::atomic<bool> stopped{false};
        P().loop.PostTask([&] { P().station.settingsStore.SaveBindings(); });
        std::thread stopper([&] {
            P().loop.Stop();
            stopped = true;
        });
        const bool stop = RunUntil([&] { return stopped.load(); }, 60000);
        stopper.join();  // after 60 s of virtual time the loop is stopped or the process hangs anyway
        if (!stop) return Fail("the station loop does not stop");
        // A job whose engine ended before that may still be on its way to its count
        // (the history's sync): the counters must hold still for a while first.
        for (int still = 0; still < 10;) {
            const auto total = P().station.statistics.Total();
            Settle();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            still = P().station.statistics.Total() == total ? still + 1 : 0;
        }
        const std::string counters = dir_.Read("Config/TestResult.ini");
        const auto total = P().station.statistics.Total();
        jobs_ = total;
        P().ready = false;  // saved already
        if (!Close(false)) return false;
        if (dir_.Read("Config/TestResult.ini") != counters) return Fail("closing wrote the counters");
        if (P().station.statistics.Total() != total) return Fail("closing counted interrupted jobs");
        return CheckHistory();
    }

private:
    sim::SimBench& Bench() { return *P().rig.Bench(); }

    bool Fail(const std::string& why) {
        if (failure_.empty()) failure_ = "step " + std::to_string(step_) + ": " + why;
        return false;
    }

    void Plug(int socket, Millis durationMs = 0) {
        engine::PhoneProfile p;
        p.durationMs = durationMs ? durationMs : 400 + static_cast<Millis>(random_() % 2500);
        p.sizeBytes = (1ull + random_() % 6) << 20;
        p.speedMBps = 16;
        p.pass = random_() % 4 != 0;
        p.failingStep = static_cast<int>(random_() % 5);
        p.sprdPhase1Ms = 300 + static_cast<Millis>(random_() % 800);
        Bench().Plug(socket, kind_, p);
    }

    std::string Slots() {
        std::string s = P().station.stationRunning ? "running:" : "stopped:";
        for (int i = 0; i < sockets_; ++i) s += std::string(" ") + BindStateName(P().station.bindings.State(i));
        for (const auto& m : P().ui.Messages()) s += " [" + m + "]";
        return s;
    }

    bool AnySlotBusy() {
        for (int i = 0; i < sockets_; ++i)
            if (P().station.bindings.State(i) == BindState::Busy) return true;
        return false;
    }

    int RunningWorkers() {
        auto& manager = P().rig.Run().Manager();
        int n = 0;
        for (int i = 0; i < manager.WorkerCount(); ++i) n += manager.WorkerAt(i)->IsRunning() ? 1 : 0;
        return n;
    }

    // Waits until the other threads are all blocked: none is runnable or in the disk
    // (a thread starved of the processor must not see virtual time jump past it), and
    // the number of clock waiters holds for about 2 ms of real time.
    void Settle() {
        int last = -1, stable = 0;
        while (stable < 8) {
            std::this_thread::sleep_for(std::chrono::microseconds(250));
            const int now = clock_.Waiters();
            stable = now == last && !OtherThreadBusy() ? stable + 1 : 0;
            last = now;
        }
    }

    static bool OtherThreadBusy() {
        namespace fs = std::filesystem;
        const std::string self = std::to_string(::gettid());
        std::error_code ec;
        for (const auto& task : fs::directory_iterator("/proc/self/task", ec)) {
            if (task.path().filename() == self) continue;
            std::ifstream in(task.path() / "stat");
            std::string stat;
            std::getline(in, stat);
            // "tid (name) S ...": the state follows the name's closing parenthesis.
            const auto close = stat.rfind(')');
            if (close != std::string::npos && close + 2 < stat.size() &&
                (stat[close + 2] == 'R' || stat[close + 2] == 'D'))
                return true;
        }
        return false;
    }

    // Moves virtual time on by `ms`, stopping at every deadline on the way.
    bool Run(Millis ms) {
        return RunUntil([] { return false; }, ms, nullptr, true);
    }

    // Runs virtual time until `done` holds, at most `limitMs` of it; `poke` is called
    // at every stop. False (a hang) when 60 s of real time pass first.
    bool RunUntil(const std::function<bool()>& done, Millis limitMs, const std::function<void()>& poke = nullptr,
                  bool timeOnly = false) {
        const Millis end = clock_.Now() + limitMs;
        const auto realLimit = Clock::now() + std::chrono::seconds(120);
        int idle = 0;
        for (;;) {
            Settle();
            if (done()) return true;
            if (clock_.Now() >= end) return timeOnly || Grace(done);
            if (Clock::now() > realLimit) return Fail("hang: virtual time stands at " + std::to_string(clock_.Now()));
            if (poke) poke();
            const Millis next = clock_.NextDeadline();
            // Nobody sleeps: a slow thread (a sanitizer) may still be on its way to a
            // timed wait, so real time passes before virtual time jumps to the end.
            if (next == platform::kForever && !timeOnly && ++idle < 200) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                continue;
            }
            idle = 0;
            clock_.AdvanceTo(next == platform::kForever || next > end ? end : next);
        }
    }

    // Virtual time ran out: a thread that is merely slow (starved of the processor, not
    // waiting on the clock) still gets there in real time; a stuck one does not.
    static bool Grace(const std::function<bool()>& done) {
        const auto limit = Clock::now() + std::chrono::seconds(5);
        while (Clock::now() < limit) {
            if (done()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return done();
    }

    // A running station has every worker started once its walk is through; a stopped
    // one has none. Presses still queued or walking settle within a few seconds.
    bool CheckWorkers() {
        const int workers = P().rig.Run().Manager().WorkerCount();
        if (workers != sockets_) return Fail("workers: " + std::to_string(workers));
        const bool ok = RunUntil([&] { return RunningWorkers() == (P().station.stationRunning ? workers : 0); }, 60000);
        return ok || Fail(std::to_string(RunningWorkers()) + " of " + std::to_string(workers) + " workers running; " +
                          Slots() + " at " + std::to_string(clock_.Now()));
    }

    // Once the jobs under way have ended, the counters hold exactly the jobs the engines
    // finished, and no slot is BUSY without a job.
    bool CheckCounters() {
        auto tally = [&] { return P().rig.Phones().Results(); };
        const bool ok = RunUntil(
            [&] {
                const auto t = tally();
                return P().station.statistics.Total() == t.results && P().station.statistics.Fail() == t.failed;
            },
            60000);
        if (!ok) {
            const auto t = tally();
            return Fail("counted " + std::to_string(P().station.statistics.Total()) + "/" +
                        std::to_string(P().station.statistics.Fail()) + " for " + std::to_string(t.results) +
                        " finished jobs, " + std::to_string(t.failed) + " failed");
        }
        // A CFG slot stays BUSY after its job until the console's Stop, by design; a stopped
        // station has none BUSY (a late removal once left one so, deaf for the next run).
        if (kind_ == sim::PhoneKind::CFG && P().station.stationRunning) return true;
        // A worker notices its engine's end at its next poll: 0.5 s in an SPRD job's
        // first phase, 5 s in its second.
        auto idleBusy = [&] {
            for (int s = 0; s < sockets_; ++s)
                if (Bench().JobRunningAt(s)) return -1;  // not drained; checked next time
            for (int i = 0; i < sockets_; ++i)
                if (P().station.bindings.State(i) == BindState::Busy) return i;
            return -1;
        };
        if (!RunUntil([&] { return idleBusy() < 0; }, 15000)) {
            const int i = idleBusy();
            return Fail("slot " + std::to_string(i) + " BUSY without a job; result " +
                        P().station.slotList.ResultText(i) + " com " + P().station.bindings.ComName(i));
        }
        return true;
    }

    // The history in the order it was written: each line carries the counters just after
    // its job, so a counted job moves the total on by one and a job the close cut short
    // (written, not counted) by none. Pass + fail of the counted jobs must be the counters;
    // no job may come twice, none be missing.
    bool CheckHistory() {
        const app::HistoryRead read = app::ReadJobHistory(dir_.File("TestLog"));
        if (read.skippedLines != 0) return Fail(std::to_string(read.skippedLines) + " history lines unreadable");
        std::set<std::string> ids;
        std::uint32_t counted = 0, failed = 0;
        bool closing = false;
        for (const app::JobRecord& job : read.jobs) {
            const std::string what = "job " + job.jobId + " on slot " + std::to_string(job.slot);
            if (!ids.insert(job.jobId).second) return Fail(what + " is in the history twice");
            if (!job.countedTotal || !job.countedFail) return Fail(what + " carries no counters");
            const bool count = *job.countedTotal == counted + 1;
            if (!count && *job.countedTotal != counted)
                return Fail(what + " moved the total from " + std::to_string(counted) + " to " +
                            std::to_string(*job.countedTotal));
            // Only the close leaves jobs uncounted, and it ends the run.
            if (count && closing) return Fail(what + " was counted after the close began");
            closing = closing || !count;
            counted += count ? 1 : 0;
            failed += count && job.result != app::JobResult::Pass ? 1 : 0;
            if (*job.countedFail != failed)
                return Fail(what + " says " + std::to_string(*job.countedFail) + " failures, the history before it " +
                            std::to_string(failed));
        }
        if (counted != jobs_ || failed != P().station.statistics.Fail())
            return Fail("history: " + std::to_string(counted) + " jobs counted, " + std::to_string(failed) +
                        " failed; counters " + std::to_string(jobs_) + "/" +
                        std::to_string(P().station.statistics.Fail()));
        // The saved counters and the shown total are those same jobs.
        const std::string file = dir_.File("Config/TestResult.ini");
        if (platform::ProfileIni::ReadInt(file, "total", "NUM", 0) != counted ||
            platform::ProfileIni::ReadInt(file, "fail", "NUM", 0) != failed ||
            P().station.view.Text(IDC_TOTAL) != std::to_string(counted))
            return Fail("saved or shown counters differ from the history's " + std::to_string(counted) + "/" +
                        std::to_string(failed) + ": " + dir_.Read("Config/TestResult.ini"));
        return true;
    }

    // As the window's close: bindings saved, the loop stopped, the workers gone; the
    // clock keeps moving meanwhile so that no sleeper holds the close up.
    bool Close(bool moveTime = true) {
        std::atomic<bool> done{false};
        std::thread closer([&] {
            P().rig.Close(P().loop, P().ready);
            done = true;
        });
        const auto realLimit = Clock::now() + std::chrono::seconds(60);
        while (!done && Clock::now() < realLimit) {
            if (moveTime) clock_.Advance(100);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        if (!done) {
            closer.detach();  // the test fails; the process ends with it
            host_.release();
            return Fail("hang: the close does not end");
        }
        closer.join();
        return true;
    }

    ScenarioStation::Process& P() { return *host_->Now(); }

    sim::PhoneKind kind_;
    int sockets_;
    Millis pace_;
    std::mt19937 random_;
    int step_ = 0;
    std::string failure_;
    test::TempDir dir_;
    platform::ManualClock clock_;
    std::unique_ptr<ScenarioStation> host_ =
        std::make_unique<ScenarioStation>(clock_, [this] { return test::FixedOptions(dir_.Path()); });
    bool ready_ = false;
    std::uint32_t jobs_ = 0;
};

// The runs of a ctest: each platform at two paces on four sockets, and once with sixteen
// slots all at work.
std::vector<Plan> Plans() {
    const int replay = EnvOr("QUORVEL_COUNT_SEED", 0), soak = EnvOr("QUORVEL_COUNT_SOAK", 0);
    const int steps = EnvOr("QUORVEL_COUNT_STEPS", 0);
    const char* only = std::getenv("QUORVEL_COUNT_PLATFORMS");
    std::vector<Plan> runs;
    for (const auto& [kind, name, package] :
         {std::tuple{sim::PhoneKind::MTK_BROM, "MTK", "scatter"}, std::tuple{sim::PhoneKind::SPRD, "SPRD", "pac"},
          std::tuple{sim::PhoneKind::CFG, "CFG", "cfg"}}) {
        if (only && *only && std::string(only) != "all" && std::string(only).find(name) == std::string::npos) continue;
        std::vector<Plan> mine = {{kind, name, package, 1, 4, 250, 50},
                                  {kind, name, package, 2, 4, 30, 50},
                                  {kind, name, package, 3, 16, 250, 30}};
        for (int i = 0; i < soak; ++i)
            mine.push_back({kind, name, package, 100u + static_cast<unsigned>(i), 4 + 4 * (i % 4),
                            i % 2 ? Millis{30} : Millis{250}, 150});
        for (Plan& run : mine) {
            if (replay > 0 && run.seed != static_cast<unsigned>(replay)) continue;
            if (steps > 0) run.steps = steps;
            runs.push_back(run);
        }
    }
    return runs;
}

TEST(CountOnce, SeededStormsOfPressesPhonesFaultsAndACloseCountEveryJobOnce) {
    int total = 0;
    std::uint32_t jobs = 0;
    for (const Plan& run : Plans()) {
        Storm storm(run);
        ASSERT_TRUE(storm.Ready()) << Describe(run);
        bool ok = true;
        for (int step = 0; ok && step < run.steps; ++step, ++total) ok = storm.Step(step);
        ok = ok && storm.CloseMidJob();
        jobs += storm.Jobs();
        EXPECT_TRUE(ok) << Describe(run) << ": " << storm.Failure()
                        << "\n  replay with QUORVEL_COUNT_PLATFORMS=" << run.platform
                        << " QUORVEL_COUNT_SEED=" << run.seed
                        << (run.seed >= 100 ? " QUORVEL_COUNT_SOAK=" + std::to_string(run.seed - 99) : "");
    }
    std::printf("count once: %d steps, %u jobs counted\n", total, jobs);
}

}  // namespace
}  // namespace quorvel::console
