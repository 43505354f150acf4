#include "engine/ProgramJob.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

namespace quorvel::engine {

using platform::ChildProcess;
using platform::Millis;

namespace {

// The job's log: appended to by this process and by the program's standard error.
class LogFile {
public:
    explicit LogFile(const std::string& path) {
        if (path.empty()) return;
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
        fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    }
    ~LogFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;
    int Fd() const { return fd_; }
    void Write(const std::string& line) const {
        if (fd_ < 0) return;
        const std::string text = line + "\n";
        [[maybe_unused]] const ssize_t r = ::write(fd_, text.data(), text.size());
    }

private:
    int fd_ = -1;
};

// The line's object with its arrival time put first: a replayable record.
std::string Recorded(const std::string& line, Millis at) {
    const std::size_t brace = line.find('{');
    std::string rest = line.substr(brace + 1);
    while (!rest.empty() && (rest.back() == '\r' || rest.back() == ' ')) rest.pop_back();
    const std::size_t body = rest.find_first_not_of(" \t");
    const bool empty = body != std::string::npos && rest[body] == '}';
    return "{\"at\":" + std::to_string(at) + (empty ? "" : ",") + rest;
}

}  // namespace

std::string ExitFaultText(const ChildProcess::Exit& exit) {
    if (exit.signalled) return "engine program crashed (signal " + std::to_string(exit.signal) + ")";
    return "engine program exited with code " + std::to_string(exit.code) + " without a result";
}

void ProgramJob::Cancel() {
    {
        std::lock_guard g(mutex_);
        cancelled_ = true;
    }
    cv_.notify_all();
}

void ProgramJob::Reset() {
    std::lock_guard g(mutex_);
    cancelled_ = false;
}

// Merges progress `e` into the older, not yet handed on `into`: the newer values win.
void MergeProgress(protocol::Event& into, const protocol::Event& e) {
    protocol::Event merged = e;
    if (!e.done && into.done) {
        merged.done = into.done;
        merged.total = into.total;
    }
    into = std::move(merged);
}

// The reader classifies, so that the consumer wakes for progress only when it hands it
// on; consecutive progress lines merge in the queue unless every line must be kept.
void ProgramJob::ReadOutput(ChildProcess& child, Millis started, bool keepEveryLine, Millis pace) {
    std::string partial;
    bool skipping = false;  // inside an over-long line, already reported
    char buffer[16384];
    bool onlyProgress = false;  // the last chunk held lines, and nothing but progress
    bool sawLine = false;
    auto push = [&](std::string text) {
        Line line{std::move(text), clock_.Now() - started, protocol::LineKind::TEXT, {}, {}};
        line.kind = protocol::Classify(line.text, line.event, line.why);
        const bool isProgress =
            line.kind == protocol::LineKind::PROTOCOL && line.event.type == protocol::Event::PROGRESS;
        onlyProgress = onlyProgress && isProgress;
        sawLine = true;
        bool wake;
        {
            std::lock_guard g(mutex_);
            wake = holdingProgress_ ? !isProgress : lines_.empty();
            if (isProgress && !keepEveryLine && !lines_.empty() && lines_.back().kind == protocol::LineKind::PROTOCOL &&
                lines_.back().event.type == protocol::Event::PROGRESS) {
                MergeProgress(lines_.back().event, line.event);
            } else {
                lines_.push_back(std::move(line));
            }
        }
        if (wake) cv_.notify_all();  // otherwise the consumer has lines to take, or waits to hand on progress
    };
    for (;;) {
        // While nothing but progress comes, read at most once per interval: the lines wait
        // in the pipe and are taken together, so a fast program does not wake the station
        // for every line it writes.
        if (onlyProgress && pace > 0) {
            std::unique_lock lk(mutex_);
            clock_.WaitFor(lk, readerCv_, pace, [&] { return readerStop_; });
            if (readerStop_) return;
        }
        onlyProgress = !keepEveryLine;
        sawLine = false;
        std::size_t got = 0;
        const auto r = child.Read(buffer, sizeof buffer, got);
        if (r == ChildProcess::ReadResult::INTERRUPTED) return;
        if (r == ChildProcess::ReadResult::EXITED) break;
        if (r == ChildProcess::ReadResult::END) {  // the exit comes next
            onlyProgress = false;
            continue;
        }
        for (std::size_t i = 0; i < got; ++i) {
            if (buffer[i] == '\n') {
                if (!skipping) push(std::move(partial));
                partial.clear();
                skipping = false;
            } else if (!skipping) {
                partial += buffer[i];
                if (partial.size() > protocol::kMaxLineBytes) {
                    push(std::move(partial));  // classified as garbage
                    partial.clear();
                    skipping = true;
                }
            }
        }
        onlyProgress = onlyProgress && sawLine;
    }
    if (!partial.empty() && !skipping) push(std::move(partial));
    const ChildProcess::Exit exit = child.Reap();
    {
        std::lock_guard g(mutex_);
        exit_ = exit;
    }
    cv_.notify_all();
}

bool ProgramJob::AwaitExit(std::unique_lock<std::mutex>& lk, Millis ms) {
    return clock_.WaitFor(lk, cv_, ms, [&] { return exit_.has_value(); });
}

bool ProgramJob::Terminate(std::unique_lock<std::mutex>& lk, ChildProcess& child, Millis graceMs) {
    if (exit_) return false;
    child.Signal(SIGTERM);
    if (AwaitExit(lk, graceMs)) return false;
    child.Signal(SIGKILL);
    AwaitExit(lk, platform::kForever);
    return true;
}

JobOutcome ProgramJob::Run(const JobRequest& request, const std::function<void(const protocol::Event&)>& onEvent) {
    LogFile log(request.logPath);
    std::string command;
    for (const auto& a : request.argv) command += (command.empty() ? "" : " ") + a;
    log.Write("# engine program: " + command);
    auto finish = [&](const JobOutcome& o) {
        if (o.kind == JobOutcome::FAULT)
            log.Write("# fault: " + o.text);
        else if (o.kind == JobOutcome::CANCELLED)
            log.Write("# cancelled");
        return o;
    };
    hello_.clear();
    {
        std::lock_guard g(mutex_);
        lines_.clear();
        exit_.reset();
        if (cancelled_) return finish({JobOutcome::CANCELLED, ""});
    }
    std::string error;
    auto child = ChildProcess::Spawn(request.argv, log.Fd(), error);
    if (!child) return finish({JobOutcome::FAULT, "engine program could not start: " + error});

    const Millis started = clock_.Now();
    {
        std::lock_guard g(mutex_);
        readerStop_ = false;
    }
    std::thread reader([&] {
        ReadOutput(*child, started, request.record || request.progressIntervalMs <= 0, request.progressIntervalMs);
    });
    bool hello = false;
    std::optional<JobOutcome> result;
    std::optional<JobOutcome> fault;
    bool cancelled = false;
    bool killed = false;
    // Progress is handed on at most once per interval: a newer line replaces one not yet
    // handed on, so a fast program costs the station no more than a slow one.
    std::optional<protocol::Event> pending;
    Millis lastProgress = clock_.Now() - request.progressIntervalMs;
    auto flush = [&] {
        if (!pending) return;
        onEvent(*pending);
        pending.reset();
        lastProgress = clock_.Now();
    };
    auto progress = [&](const protocol::Event& e) {
        if (pending)
            MergeProgress(*pending, e);
        else
            pending = e;
        if (clock_.Now() - lastProgress >= request.progressIntervalMs) flush();
    };
    {
        std::unique_lock lk(mutex_);
        Millis lastHeard = clock_.Now();
        while (!result && !fault && !cancelled) {
            const Millis silenceAt = lastHeard + request.silenceMs;
            const Millis flushAt = pending ? lastProgress + request.progressIntervalMs : silenceAt;
            holdingProgress_ = pending.has_value();
            clock_.WaitUntil(lk, cv_, std::min(silenceAt, flushAt), [&] {
                return cancelled_ || exit_.has_value() ||
                       (!lines_.empty() &&
                        (!holdingProgress_ || lines_.back().event.type != protocol::Event::PROGRESS ||
                         lines_.size() > 1));
            });
            holdingProgress_ = false;
            if (cancelled_) {
                cancelled = true;
                break;
            }
            if (lines_.empty() && !exit_ && clock_.Now() >= silenceAt) {
                fault = JobOutcome{JobOutcome::FAULT,
                                   "engine program silent for " + std::to_string(request.silenceMs / 1000) + " s"};
                break;
            }
            while (!lines_.empty() && !result && !fault) {
                Line line = std::move(lines_.front());
                lines_.pop_front();
                lastHeard = std::max(lastHeard, started + line.at);
                lk.unlock();
                const protocol::Event& event = line.event;
                const std::string& why = line.why;
                switch (line.kind) {
                    case protocol::LineKind::TEXT: log.Write(line.text); break;
                    case protocol::LineKind::GARBAGE:
                        log.Write(line.text.substr(0, 4096));
                        fault = JobOutcome{JobOutcome::FAULT, "engine program wrote garbage: " + why};
                        break;
                    case protocol::LineKind::PROTOCOL:
                        if (request.record) log.Write(Recorded(line.text, line.at));
                        if (!hello) {
                            if (event.type != protocol::Event::HELLO) {
                                fault = JobOutcome{JobOutcome::FAULT,
                                                   "engine program wrote a protocol line before its hello"};
                            } else if (event.version != protocol::kVersion) {
                                fault = JobOutcome{JobOutcome::FAULT, "engine program speaks protocol version " +
                                                                          std::to_string(event.version) +
                                                                          ", the station speaks " +
                                                                          std::to_string(protocol::kVersion)};
                            } else {
                                hello = true;
                                hello_ = event.program.empty() ? "(unnamed)" : event.program;
                                log.Write("# program: " + event.program);
                            }
                        } else if (event.type == protocol::Event::PROGRESS) {
                            progress(event);
                        } else if (event.type == protocol::Event::RESULT) {
                            flush();
                            result = JobOutcome{event.ok ? JobOutcome::PASSED : JobOutcome::FAILED, event.error};
                        } else if (event.type != protocol::Event::HELLO) {
                            flush();
                            onEvent(event);
                        }
                        break;
                }
                lk.lock();
            }
            // Newer progress taken above first, so what is handed on is the latest.
            if (!result && !fault && pending && clock_.Now() >= lastProgress + request.progressIntervalMs) {
                lk.unlock();
                flush();
                lk.lock();
            }
            if (!result && !fault && lines_.empty() && exit_) {
                lk.unlock();
                flush();
                lk.lock();
                fault = JobOutcome{JobOutcome::FAULT, ExitFaultText(*exit_)};
            }
        }
        // The program ends in every case: after its result it may finish by itself.
        if (cancelled || fault || !AwaitExit(lk, request.graceMs)) killed = Terminate(lk, *child, request.graceMs);
    }
    {
        std::lock_guard g(mutex_);
        readerStop_ = true;
    }
    readerCv_.notify_all();
    child->Interrupt();
    reader.join();
    child.reset();
    JobOutcome out = cancelled ? JobOutcome{JobOutcome::CANCELLED, ""} : fault ? *fault : *result;
    out.killed = killed;
    if (killed) log.Write("# killed after the grace period");
    return finish(out);
}

}  // namespace quorvel::engine
