#include "engine/ProgramJob.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

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

void ProgramJob::ReadOutput(ChildProcess& child, Millis started) {
    std::string partial;
    bool skipping = false;  // inside an over-long line, already reported
    char buffer[16384];
    auto push = [&](std::string text) {
        {
            std::lock_guard g(mutex_);
            lines_.push_back({std::move(text), clock_.Now() - started});
        }
        cv_.notify_all();
    };
    for (;;) {
        std::size_t got = 0;
        const auto r = child.Read(buffer, sizeof buffer, got);
        if (r == ChildProcess::ReadResult::INTERRUPTED) return;
        if (r == ChildProcess::ReadResult::END) continue;  // the exit comes next
        if (r == ChildProcess::ReadResult::EXITED) break;
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

void ProgramJob::Terminate(std::unique_lock<std::mutex>& lk, ChildProcess& child, Millis graceMs) {
    if (exit_) return;
    child.Signal(SIGTERM);
    if (AwaitExit(lk, graceMs)) return;
    child.Signal(SIGKILL);
    AwaitExit(lk, platform::kForever);
}

JobOutcome ProgramJob::Run(const JobSpec& spec, const std::function<void(const protocol::Event&)>& onEvent) {
    LogFile log(spec.logPath);
    std::string command;
    for (const auto& a : spec.argv) command += (command.empty() ? "" : " ") + a;
    log.Write("# engine program: " + command);
    JobOutcome outcome;
    auto finish = [&](JobOutcome o) {
        if (o.kind == JobOutcome::FAULT) log.Write("# fault: " + o.text);
        else if (o.kind == JobOutcome::CANCELLED) log.Write("# cancelled");
        return o;
    };
    {
        std::lock_guard g(mutex_);
        lines_.clear();
        exit_.reset();
        if (cancelled_) return finish({JobOutcome::CANCELLED, ""});
    }
    std::string error;
    auto child = ChildProcess::Spawn(spec.argv, log.Fd(), error);
    if (!child) return finish({JobOutcome::FAULT, "engine program could not start: " + error});

    const Millis started = clock_.Now();
    std::thread reader([&] { ReadOutput(*child, started); });
    bool hello = false;
    std::optional<JobOutcome> result;
    std::optional<JobOutcome> fault;
    bool cancelled = false;
    {
        std::unique_lock lk(mutex_);
        Millis lastHeard = clock_.Now();
        while (!result && !fault && !cancelled) {
            const bool woke = clock_.WaitUntil(lk, cv_, lastHeard + spec.silenceMs,
                                               [&] { return cancelled_ || !lines_.empty() || exit_.has_value(); });
            if (cancelled_) {
                cancelled = true;
                break;
            }
            if (!woke) {
                fault = JobOutcome{JobOutcome::FAULT,
                                   "engine program silent for " + std::to_string(spec.silenceMs / 1000) + " s"};
                break;
            }
            while (!lines_.empty() && !result && !fault) {
                Line line = std::move(lines_.front());
                lines_.pop_front();
                lastHeard = clock_.Now();
                lk.unlock();
                protocol::Event event;
                std::string why;
                switch (protocol::Classify(line.text, event, why)) {
                    case protocol::LineKind::TEXT: log.Write(line.text); break;
                    case protocol::LineKind::GARBAGE:
                        log.Write(line.text.substr(0, 4096));
                        fault = JobOutcome{JobOutcome::FAULT, "engine program wrote garbage: " + why};
                        break;
                    case protocol::LineKind::PROTOCOL:
                        if (spec.record) log.Write(Recorded(line.text, line.at));
                        if (!hello) {
                            if (event.type != protocol::Event::HELLO) {
                                fault = JobOutcome{JobOutcome::FAULT, "engine program wrote a protocol line before its hello"};
                            } else if (event.version != protocol::kVersion) {
                                fault = JobOutcome{JobOutcome::FAULT,
                                                   "engine program speaks protocol version " +
                                                       std::to_string(event.version) + ", the station speaks " +
                                                       std::to_string(protocol::kVersion)};
                            } else {
                                hello = true;
                                log.Write("# program: " + event.program);
                            }
                        } else if (event.type == protocol::Event::RESULT) {
                            result = JobOutcome{event.ok ? JobOutcome::PASSED : JobOutcome::FAILED, event.error};
                        } else if (event.type != protocol::Event::HELLO) {
                            onEvent(event);
                        }
                        break;
                }
                lk.lock();
            }
            if (!result && !fault && lines_.empty() && exit_) fault = JobOutcome{JobOutcome::FAULT, ExitFaultText(*exit_)};
        }
        // The program ends in every case: after its result it may finish by itself.
        if (cancelled || fault) {
            Terminate(lk, *child, spec.graceMs);
        } else if (!AwaitExit(lk, spec.graceMs)) {
            Terminate(lk, *child, spec.graceMs);
        }
    }
    child->Interrupt();
    reader.join();
    child.reset();
    if (cancelled) return finish({JobOutcome::CANCELLED, ""});
    return finish(fault ? *fault : *result);
}

}  // namespace quorvel::engine
