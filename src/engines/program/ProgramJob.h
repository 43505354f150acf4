#pragma once
// One run of an engine program: starts it, hands the events of its protocol lines to
// the caller, and ends it in every case (result, cancel, crash, garbage, silence, wrong
// version) with the program reaped and its descriptors closed. Free output, standard
// error, faults and (when recording) the protocol lines with their times go to the
// job's log file. All waits run on the station clock.
// Threads: Run on the caller's thread (a worker or an engine thread), which receives the
// events; Cancel and Reset from any thread. The output is read by the clock's shared
// ProgramReader, which hands progress on itself while the caller's thread has nothing
// else to do, so a steady transfer does not wake that thread at all: the event callback
// must not block for progress, which may come on either thread (never both at once).

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engines/program/EngineProtocol.h"
#include "engines/program/ProgramReader.h"
#include "platform/ChildProcess.h"
#include "platform/Clock.h"

namespace quorvel::engine {

struct JobOutcome {
    enum Kind { PASSED, FAILED, CANCELLED, FAULT } kind = FAULT;
    std::string text;     // FAILED: the program's error text; FAULT: what went wrong
    bool killed = false;  // it did not exit in time and was killed with SIGKILL
    // FAULT: no answer in this protocol (it did not start, spoke another version, or
    // exited by itself without a result), rather than a broken one.
    bool noResult = false;
    // The protocol lines the program wrote after its result, which the station does not
    // take: the conformance check names them.
    std::vector<protocol::Event::Type> afterResult{};
};

// One job's log keeps its first and its last bytes; what lies between is cut, and a line
// says how much.
inline constexpr std::size_t kLogHeadBytes = 1u << 20;
inline constexpr std::size_t kLogTailBytes = 1u << 20;

struct JobRequest {
    std::vector<std::string> argv;
    std::string logPath;  // created with its folder; empty: no log
    platform::Millis silenceMs = 60000;
    platform::Millis graceMs = 3000;
    bool record = false;
    platform::Millis progressIntervalMs = 20;  // progress handed on at most this often
    std::string recordDir{};                   // where running programs are recorded (see ChildProcess); empty: nowhere
};

class ProgramJob final : private ProgramReader::Client {
public:
    explicit ProgramJob(platform::Clock& clock) : clock_(clock), reader_(ProgramReader::For(clock)) {}
    ProgramJob(const ProgramJob&) = delete;
    ProgramJob& operator=(const ProgramJob&) = delete;

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
    unsigned OnOutput(const char* data, std::size_t size, platform::Millis now) override;
    bool OnRound(platform::Millis now) override;
    void OnStderr(const char* data, std::size_t size) override;
    void OnExit(const platform::ChildProcess::Exit& exit) override;
    // Reader thread: one complete line read at `now`; true when it was progress.
    bool Push(std::string text, platform::Millis now);
    // With mutex_ held, on the reader thread: hands `held_` on.
    void Deliver(std::unique_lock<std::mutex>& lk, platform::Millis now);
    // With mutex_ held: waits for the reader to see the exit, at most `ms` (kForever: no limit).
    bool AwaitExit(std::unique_lock<std::mutex>& lk, platform::Millis ms);
    // True when SIGKILL was needed.
    bool Terminate(std::unique_lock<std::mutex>& lk, platform::ChildProcess& child, platform::Millis graceMs);

    platform::Clock& clock_;
    std::shared_ptr<ProgramReader> reader_;
    std::string hello_;  // Run's thread only
    std::mutex mutex_;
    std::condition_variable cv_;         // Run's thread: lines, held progress, exit, cancel
    std::condition_variable delivered_;  // Run's thread waits out a hand-on by the reader
    bool cancelled_ = false;
    // One run's state, guarded by mutex_.
    platform::Millis started_ = 0;
    platform::Millis intervalMs_ = 0;
    bool keepEveryLine_ = false;
    const std::function<void(const protocol::Event&)>* onEvent_ = nullptr;
    std::deque<Line> lines_;
    std::optional<protocol::Event> held_;  // progress not yet handed on
    platform::Millis lastDelivered_ = 0;
    platform::Millis lastHeard_ = 0;
    bool helloAccepted_ = false;
    bool busy_ = true;  // Run's thread is not idle in its wait: the reader queues everything
    bool delivering_ = false;
    bool awaitingDelivery_ = false;
    std::optional<platform::ChildProcess::Exit> exit_;
    class LogFile;
    LogFile* log_ = nullptr;  // the running job's log
    // Reader thread only.
    std::string partial_;
    bool skipping_ = false;  // inside an over-long line, already reported
};

// The fault texts, shown in the slot row and written to the job log.
std::string ExitFaultText(const platform::ChildProcess::Exit& exit);

}  // namespace quorvel::engine
