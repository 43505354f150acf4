#include "engines/program/ProgramJob.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string_view>

#include "platform/UniqueFd.h"

namespace quorvel::engine {

using platform::ChildProcess;
using platform::Millis;

namespace {

// The line's object with its arrival time put first: a replayable record.
std::string Recorded(const std::string& line, Millis at) {
    const std::size_t brace = line.find('{');
    std::string rest = line.substr(brace + 1);
    while (!rest.empty() && (rest.back() == '\r' || rest.back() == ' ')) rest.pop_back();
    const std::size_t body = rest.find_first_not_of(" \t");
    const bool empty = body != std::string::npos && rest[body] == '}';
    return "{\"at\":" + std::to_string(at) + (empty ? "" : ",") + rest;
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

bool IsProgress(protocol::LineKind kind, const protocol::Event& e) {
    return kind == protocol::LineKind::PROTOCOL && e.type == protocol::Event::PROGRESS;
}

}  // namespace

// The job's log, written by the job's thread and (the program's standard error) by the
// reader's: the first kLogHeadBytes go out as they come, then only the last kLogTailBytes
// are kept, to be written after a line that says how much was cut between.
class ProgramJob::LogFile {
public:
    explicit LogFile(const std::string& path) {
        if (path.empty()) return;
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
        fd_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    }
    ~LogFile() {
        if (!fd_) return;
        if (!tail_.empty()) {
            if (tail_.size() > kLogTailBytes) Cut(tail_.size() - kLogTailBytes);
            // The kept tail starts at a line of its own.
            if (cut_ > 0) {
                const std::size_t nl = tail_.find('\n');
                if (nl != std::string::npos && nl + 1 < tail_.size()) Cut(nl + 1);
                Put("\n# ... " + std::to_string(cut_) + " bytes of this log cut here ...\n");
            }
            Put(tail_);
        }
    }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;
    // One line of the station's; control characters are written escaped, so no value can
    // add a line (a replayed log reads its records line by line).
    void Write(const std::string& line) {
        std::string text;
        text.reserve(line.size() + 1);
        for (const unsigned char c : line) {
            if (c < 0x20 && c != '\t') {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\x%02x", c);
                text += esc;
            } else {
                text += static_cast<char>(c);
            }
        }
        text += '\n';
        Raw(text.data(), text.size());
    }
    void Raw(const char* data, std::size_t size) {
        std::lock_guard g(mutex_);
        if (!fd_) return;
        if (written_ < kLogHeadBytes) {
            const std::size_t head = std::min(size, kLogHeadBytes - written_);
            Put(std::string_view(data, head));
            written_ += head;
            data += head;
            size -= head;
        }
        if (size == 0) return;
        tail_.append(data, size);
        if (tail_.size() > 2 * kLogTailBytes) Cut(tail_.size() - kLogTailBytes);
    }

private:
    void Put(std::string_view text) const {
        [[maybe_unused]] const ssize_t r = ::write(fd_.get(), text.data(), text.size());
    }
    void Cut(std::size_t bytes) {
        tail_.erase(0, bytes);
        cut_ += bytes;
    }

    std::mutex mutex_;
    platform::UniqueFd fd_;
    std::size_t written_ = 0;
    std::string tail_;
    std::uint64_t cut_ = 0;
};

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

unsigned ProgramJob::OnOutput(const char* data, std::size_t size, Millis now) {
    bool progressOnly = true, sawLine = false;
    const char* const end = data + size;
    while (data < end) {
        const char* nl = static_cast<const char*>(std::memchr(data, '\n', static_cast<std::size_t>(end - data)));
        const char* stop = nl ? nl : end;
        if (!skipping_) {
            partial_.append(data, stop);
            if (partial_.size() > protocol::kMaxLineBytes) {
                partial_.resize(protocol::kMaxLineBytes + 1);
                Push(std::move(partial_), now);  // classified as garbage
                partial_.clear();
                skipping_ = true;
                progressOnly = false;
            }
        }
        data = stop;
        if (nl) {
            if (!skipping_) {
                progressOnly = Push(std::move(partial_), now) && progressOnly;
                sawLine = true;
            }
            partial_.clear();
            skipping_ = false;
            ++data;
        }
    }
    // The newest progress of the whole chunk is handed on, not the first of it.
    std::unique_lock lk(mutex_);
    if (held_ && !busy_ && lines_.empty() && now - lastDelivered_ >= intervalMs_) Deliver(lk, now);
    return (progressOnly && sawLine ? PROGRESS_ONLY : 0) | (held_ && !busy_ ? HOLDING : 0);
}

bool ProgramJob::OnRound(Millis now) {
    std::unique_lock lk(mutex_);
    if (!held_ || busy_) return false;  // Run's thread hands it on
    if (lines_.empty() && now - lastDelivered_ >= intervalMs_) Deliver(lk, now);
    return held_ && !busy_;
}

void ProgramJob::OnStderr(const char* data, std::size_t size) {
    std::lock_guard g(mutex_);
    if (log_) log_->Raw(data, size);
}

void ProgramJob::OnExit(const ChildProcess::Exit& exit) {
    if (!partial_.empty() && !skipping_) Push(std::move(partial_), clock_.Now());
    partial_.clear();
    skipping_ = false;
    {
        std::lock_guard g(mutex_);
        exit_ = exit;
    }
    cv_.notify_all();
}

// Progress is held here, to be handed on by the reader's thread while Run's thread sits
// idle with nothing queued; anything else is queued for Run's thread, in order. Progress
// that Run's thread was holding when it went idle stays with its timer.
bool ProgramJob::Push(std::string text, Millis now) {
    Line line{std::move(text), 0, protocol::LineKind::TEXT, {}, {}};
    line.kind = protocol::Classify(line.text, line.event, line.why);
    const bool progress = IsProgress(line.kind, line.event);
    std::unique_lock lk(mutex_);
    line.at = now - started_;
    lastHeard_ = now;
    if (progress && !keepEveryLine_ && helloAccepted_ && !busy_ && lines_.empty()) {
        if (held_)
            MergeProgress(*held_, line.event);
        else
            held_ = line.event;
        return true;  // handed on after the chunk, or in a later round when not yet due
    }
    const bool wake = lines_.empty();
    if (progress && !keepEveryLine_ && !lines_.empty() && IsProgress(lines_.back().kind, lines_.back().event))
        MergeProgress(lines_.back().event, line.event);
    else
        lines_.push_back(std::move(line));
    lk.unlock();
    if (wake) cv_.notify_all();
    return progress;
}

void ProgramJob::Deliver(std::unique_lock<std::mutex>& lk, Millis now) {
    const protocol::Event e = std::move(*held_);
    held_.reset();
    delivering_ = true;
    const auto* onEvent = onEvent_;
    lk.unlock();
    (*onEvent)(e);
    lk.lock();
    delivering_ = false;
    lastDelivered_ = now;
    if (awaitingDelivery_) delivered_.notify_all();
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
    const Millis interval = std::max<Millis>(0, request.progressIntervalMs);
    {
        std::lock_guard g(mutex_);
        lines_.clear();
        held_.reset();
        exit_.reset();
        helloAccepted_ = false;
        busy_ = true;
        keepEveryLine_ = request.record || interval == 0;
        intervalMs_ = interval;
        onEvent_ = &onEvent;
        if (cancelled_) return finish({JobOutcome::CANCELLED, ""});
    }
    std::string error;
    // The log is the reader's until the program is removed from it.
    struct Attach {
        ProgramJob& job;
        Attach(ProgramJob& j, LogFile& log) : job(j) {
            std::lock_guard g(job.mutex_);
            job.log_ = &log;
        }
        ~Attach() {
            std::lock_guard g(job.mutex_);
            job.log_ = nullptr;
        }
    } attach{*this, log};
    auto child = ChildProcess::Spawn(request.argv, true, error, request.recordDir);
    if (!child) {
        JobOutcome out{JobOutcome::FAULT, "engine program could not start: " + error};
        out.noResult = true;
        return finish(out);
    }
    {
        std::lock_guard g(mutex_);
        started_ = clock_.Now();
        lastHeard_ = started_;
        lastDelivered_ = started_ - interval;
    }
    partial_.clear();
    skipping_ = false;
    error = reader_->Add(*child, *this, keepEveryLine_ ? 0 : interval);
    if (!error.empty()) return finish({JobOutcome::FAULT, "engine program could not start: " + error});

    bool hello = false;
    std::optional<JobOutcome> result;
    std::optional<JobOutcome> fault;
    bool cancelled = false;
    bool killed = false;
    {
        std::unique_lock lk(mutex_);
        // Held progress first, so that what follows it comes after it.
        auto flush = [&] {
            if (!held_) return;
            const protocol::Event e = std::move(*held_);
            held_.reset();
            lk.unlock();
            onEvent(e);
            lk.lock();
            lastDelivered_ = clock_.Now();
        };
        while (!result && !fault && !cancelled) {
            busy_ = false;
            const bool hadHeld = held_.has_value();
            const Millis silenceAt = lastHeard_ + request.silenceMs;
            const Millis flushAt = hadHeld ? lastDelivered_ + interval : silenceAt;
            clock_.WaitUntil(lk, cv_, std::min(silenceAt, flushAt), [&] {
                return cancelled_ || exit_.has_value() || !lines_.empty() || held_.has_value() != hadHeld;
            });
            busy_ = true;
            if (delivering_) {
                awaitingDelivery_ = true;
                clock_.WaitFor(lk, delivered_, platform::kForever, [&] { return !delivering_; });
                awaitingDelivery_ = false;
            }
            if (cancelled_) {
                cancelled = true;
                break;
            }
            if (lines_.empty() && !exit_ && clock_.Now() >= lastHeard_ + request.silenceMs) {
                fault = JobOutcome{JobOutcome::FAULT,
                                   "engine program silent for " + std::to_string(request.silenceMs / 1000) + " s"};
                break;
            }
            while (!lines_.empty() && !result && !fault) {
                Line line = std::move(lines_.front());
                lines_.pop_front();
                if (hello && IsProgress(line.kind, line.event)) {
                    if (held_)
                        MergeProgress(*held_, line.event);
                    else
                        held_ = line.event;
                    if (clock_.Now() - lastDelivered_ >= interval) flush();
                    if (request.record) {
                        lk.unlock();
                        log.Write(Recorded(line.text, line.at));
                        lk.lock();
                    }
                    continue;
                }
                if (line.kind == protocol::LineKind::PROTOCOL && hello) flush();
                lk.unlock();
                const protocol::Event& event = line.event;
                switch (line.kind) {
                    case protocol::LineKind::TEXT: log.Write(line.text); break;
                    case protocol::LineKind::GARBAGE:
                        log.Write(line.text.substr(0, 4096));
                        fault = JobOutcome{JobOutcome::FAULT, "engine program wrote garbage: " + line.why};
                        break;
                    case protocol::LineKind::PROTOCOL:
                        if (request.record) log.Write(Recorded(line.text, line.at));
                        if (!hello) {
                            if (event.type != protocol::Event::HELLO) {
                                fault = JobOutcome{JobOutcome::FAULT,
                                                   "engine program wrote a protocol line before its hello"};
                                fault->noResult = true;
                            } else if (event.version != protocol::kVersion) {
                                fault = JobOutcome{JobOutcome::FAULT, "engine program speaks protocol version " +
                                                                          std::to_string(event.version) +
                                                                          ", the station speaks " +
                                                                          std::to_string(protocol::kVersion)};
                                fault->noResult = true;
                            } else {
                                hello = true;
                                hello_ = event.program.empty() ? "(unnamed)" : event.program;
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
                helloAccepted_ = hello;
            }
            if (!result && !fault && held_ && clock_.Now() - lastDelivered_ >= interval) flush();
            if (!result && !fault && lines_.empty() && exit_) {
                flush();
                fault = JobOutcome{JobOutcome::FAULT, ExitFaultText(*exit_)};
                fault->noResult = !exit_->signalled;
            }
        }
        // The program ends in every case: after its result it may finish by itself.
        if (cancelled || fault || !AwaitExit(lk, request.graceMs)) killed = Terminate(lk, *child, request.graceMs);
        if (result)
            for (const Line& line : lines_)
                if (line.kind == protocol::LineKind::PROTOCOL) result->afterResult.push_back(line.event.type);
    }
    reader_->Remove(*this);
    child.reset();
    JobOutcome out = cancelled ? JobOutcome{JobOutcome::CANCELLED, ""} : fault ? *fault : *result;
    out.killed = killed;
    if (killed) log.Write("# killed after the grace period");
    return finish(out);
}

}  // namespace quorvel::engine
