#pragma once
// One run of an engine program: starts it, reads its protocol lines, hands their
// events to the caller, and ends it in every case (result, cancel, crash, garbage,
// silence, wrong version) with the program reaped and its descriptors closed.
// Free output, standard error, faults and (when recording) the protocol lines with
// their times go to the job's log file. All waits run on the station clock.
// Threads: Run on the caller's thread (a worker or an engine thread), which also
// receives the events; Cancel and Reset from any thread. A reader thread per run.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/EngineProtocol.h"
#include "platform/ChildProcess.h"
#include "platform/Clock.h"

namespace quorvel::engine {

struct JobOutcome {
    enum Kind { PASSED, FAILED, CANCELLED, FAULT } kind = FAULT;
    std::string text;     // FAILED: the program's error text; FAULT: what went wrong
    bool killed = false;  // it did not exit in time and was killed with SIGKILL
};

struct JobRequest {
    std::vector<std::string> argv;
    std::string logPath;  // created with its folder; empty: no log
    platform::Millis silenceMs = 60000;
    platform::Millis graceMs = 3000;
    bool record = false;
    platform::Millis progressIntervalMs = 20;  // progress handed on at most this often
};

class ProgramJob {
public:
    explicit ProgramJob(platform::Clock& clock) : clock_(clock) {}

    JobOutcome Run(const JobRequest& request, const std::function<void(const protocol::Event&)>& onEvent);
    // Ends the running program (SIGTERM, then SIGKILL after the grace period); a Run
    // that starts after Cancel and before Reset ends at once as cancelled.
    void Cancel();
    void Reset();
    // The program name and version of the last run's hello; empty when it gave none.
    std::string LastHello() const { return hello_; }

private:
    // One line as the reader classified it.
    struct Line {
        std::string text;
        platform::Millis at;
        protocol::LineKind kind;
        protocol::Event event;
        std::string why;
    };
    void ReadOutput(platform::ChildProcess& child, platform::Millis started, bool keepEveryLine, platform::Millis pace);
    // With mutex_ held: waits for the reader to see the exit, at most `ms` (kForever: no limit).
    bool AwaitExit(std::unique_lock<std::mutex>& lk, platform::Millis ms);
    // True when SIGKILL was needed.
    bool Terminate(std::unique_lock<std::mutex>& lk, platform::ChildProcess& child, platform::Millis graceMs);

    platform::Clock& clock_;
    std::string hello_;  // Run's thread only
    std::mutex mutex_;
    std::condition_variable cv_;        // the consumer: lines, exit, cancel
    std::condition_variable readerCv_;  // the reader's pause between reads
    bool cancelled_ = false;
    // One run's reader state, guarded by mutex_.
    std::deque<Line> lines_;
    std::optional<platform::ChildProcess::Exit> exit_;
    bool readerStop_ = false;
    bool holdingProgress_ = false;  // the consumer waits to hand on progress: more progress need not wake it
};

// The fault texts, shown in the slot row and written to the job log.
std::string ExitFaultText(const platform::ChildProcess::Exit& exit);

}  // namespace quorvel::engine
