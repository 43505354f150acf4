// Conformance kit for authors of engine programs: runs a program through the cases of
// the engine line protocol (docs/engine-protocol.md) and prints what conforms.
// Threads: main runs the cases one after another (a real program may drive one phone
// only); a signal thread ends the running case's program when the checker is told to stop.
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engines/program/ProgramCheck.h"
#include "engines/program/ProgramJob.h"
#include "engines/program/ProgramSettings.h"
#include "platform/JsonText.h"

namespace {

using namespace quorvel;
using engine::JobOutcome;

constexpr int kExitConforms = 0;
constexpr int kExitFails = 1;
constexpr int kExitUsage = 2;
constexpr long kMaxSilenceSeconds = 3600;

const char* const kHelp =
    R"HELP(quorvel-engine-check - check an engine program against the engine line protocol

Usage:
  quorvel-engine-check [--fail-args "ARGS"] [--silence SECONDS] [--json] [--] PROGRAM [ARGS...]

Runs PROGRAM ARGS as the station would for one job, one case after another, and checks:
  version   --version answers with a hello of protocol version 1
  progress  a job reports progress
  pass      a job ends with a passing result and exits by itself
  garbage   every line is free text or a valid protocol line
  silence   no gap between lines longer than SECONDS (default 60, at most 3600)
  protocol  the hello comes first and names protocol version 1
  device    the phone's identity (optional): well-formed, at most once, before the result
  fail      PROGRAM ARGS FAIL-ARGS ends with a failing result (skipped without --fail-args)
  cancel    SIGTERM after the first progress line ends the program within 3 s
  preload   --preload answered with a result, or left out (an exit without a result)
  verify    --verify answered with a result, or left out

Cases that need a job to judge are skipped when the program never spoke the protocol;
once a run had to be waited out (silent for SECONDS, or deaf to SIGTERM) the runs that
could hang as well are skipped, not waited out again. Ctrl-C or SIGTERM ends the program
under test before the checker exits.

Options:
  --fail-args "ARGS"  arguments that make PROGRAM fail its job (split as a command line)
  --silence SECONDS   the longest silence allowed, as [ENGINES] SilenceSeconds
  --json              one JSON object: {"program", "conforms", "cases": [{"name",
                      "verdict" (pass, fail or skip), "detail"}]}
  --help              this text

Exit status:
  0  every case that ran conforms
  1  a case does not conform, or the checker was interrupted
  2  the command line was not understood
)HELP";

int Usage(const std::string& why) {
    std::fprintf(stderr, "quorvel-engine-check: %s (quorvel-engine-check --help tells more)\n", why.c_str());
    return kExitUsage;
}

// A whole number of seconds in 1..kMaxSilenceSeconds.
bool ParseSeconds(const char* text, long& out) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || v < 1 || v > kMaxSilenceSeconds) return false;
    out = v;
    return true;
}

enum class Verdict { Pass, Fail, Skip };

struct Case {
    std::string name;
    Verdict verdict;
    std::string detail;
};

// Ends the running case's program when the checker receives SIGINT, SIGTERM or SIGHUP:
// the program sits in its own process group, so neither the terminal's Ctrl-C nor a
// signal to the checker reaches it by itself.
class Interrupts {
public:
    Interrupts() {
        sigemptyset(&set_);
        for (int s : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set_, s);
        // Blocked before any other thread exists, so only the watcher takes them.
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
        std::thread([this] {
            int sig = 0;
            if (sigwait(&set_, &sig) != 0) return;
            std::lock_guard g(mutex_);
            signal_ = sig;
            if (running_) running_->Cancel();
        }).detach();
    }
    // The job of the case now running; null when none.
    void SetRunning(engine::ProgramJob* job) {
        std::lock_guard g(mutex_);
        running_ = job;
        if (job && signal_) job->Cancel();
    }
    int Signal() {
        std::lock_guard g(mutex_);
        return signal_;
    }

private:
    sigset_t set_;
    std::mutex mutex_;
    engine::ProgramJob* running_ = nullptr;
    int signal_ = 0;
};

struct Run {
    JobOutcome outcome;
    int progress = 0, steps = 0, statuses = 0, switches = 0, devices = 0;
    app::PhoneIdentity device;
    platform::Millis longestGap = 0;
    bool hello = false;

    bool Fault(const char* what) const {
        return outcome.kind == JobOutcome::FAULT && outcome.text.find(what) != std::string::npos;
    }
    // It wrote protocol lines, good or bad, so the protocol cases can be judged.
    bool Spoke() const { return hello || Fault("garbage") || Fault("protocol version") || Fault("before its hello"); }
    // It had to be waited out: silent for the whole limit, or deaf to SIGTERM.
    bool Hung() const { return outcome.killed || Fault("silent for"); }
};

Run RunOnce(Interrupts& interrupts, platform::Clock& clock, std::vector<std::string> argv, platform::Millis silenceMs,
            bool cancelAtFirstProgress = false) {
    engine::ProgramJob job(clock);
    interrupts.SetRunning(&job);
    Run r;
    platform::Millis last = clock.Now();
    engine::JobRequest request{std::move(argv), "", silenceMs, engine::kProgramGraceMs, false, 0};
    r.outcome = job.Run(request, [&](const engine::protocol::Event& e) {
        const platform::Millis now = clock.Now();
        r.longestGap = std::max(r.longestGap, now - last);
        last = now;
        switch (e.type) {
            case engine::protocol::Event::PROGRESS:
                if (r.progress++ == 0 && cancelAtFirstProgress) job.Cancel();
                break;
            case engine::protocol::Event::STEP: ++r.steps; break;
            case engine::protocol::Event::STATUS: ++r.statuses; break;
            case engine::protocol::Event::SWITCH: ++r.switches; break;
            case engine::protocol::Event::DEVICE:
                ++r.devices;
                r.device = e.device;
                break;
            default: break;
        }
    });
    interrupts.SetRunning(nullptr);
    r.hello = !job.LastHello().empty();
    return r;
}

std::string Identity(const app::PhoneIdentity& d) {
    std::string out;
    for (auto [name, value] : {std::pair{"chip", &d.chip}, {"serial", &d.serial}, {"imei", &d.imei}})
        if (!value->empty()) out += (out.empty() ? "" : ", ") + std::string(name) + " " + *value;
    return out;
}

std::string Describe(const JobOutcome& o) {
    switch (o.kind) {
        case JobOutcome::PASSED: return "passed";
        case JobOutcome::FAILED: return "failed: " + (o.text.empty() ? std::string("(no error text)") : o.text);
        case JobOutcome::CANCELLED: return "cancelled";
        case JobOutcome::FAULT: return o.text;
    }
    return "";
}

void Print(const std::vector<Case>& cases, const std::string& program, bool conforms, bool json) {
    if (json) {
        std::string out = "{\"program\":" + platform::JsonQuote(program) +
                          ",\"conforms\":" + (conforms ? "true" : "false") + ",\"cases\":[";
        for (std::size_t i = 0; i < cases.size(); ++i) {
            const Case& c = cases[i];
            const char* verdict = c.verdict == Verdict::Pass ? "pass" : c.verdict == Verdict::Fail ? "fail" : "skip";
            out += std::string(i ? "," : "") + "{\"name\":" + platform::JsonQuote(c.name) + ",\"verdict\":\"" +
                   verdict + "\",\"detail\":" + platform::JsonQuote(c.detail) + "}";
        }
        std::printf("%s]}\n", out.c_str());
        return;
    }
    for (const Case& c : cases) {
        const char* verdict = c.verdict == Verdict::Pass ? "PASS" : c.verdict == Verdict::Fail ? "FAIL" : "SKIP";
        std::printf("%s  %-9s %s\n", verdict, c.name.c_str(), c.detail.c_str());
    }
    std::printf("%s\n", conforms ? "conforms to engine line protocol 1" : "does not conform");
}

}  // namespace

int main(int argc, char** argv) {
    std::string failArgs;
    bool hasFailArgs = false, json = false;
    long silenceSeconds = 60;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return kExitConforms;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--fail-args") {
            if (i + 1 >= argc) return Usage("--fail-args needs the arguments that make the job fail");
            failArgs = argv[++i];
            hasFailArgs = true;
        } else if (a == "--silence") {
            if (i + 1 >= argc || !ParseSeconds(argv[++i], silenceSeconds))
                return Usage("--silence needs whole seconds from 1 to " + std::to_string(kMaxSilenceSeconds));
        } else if (a == "--") {
            ++i;
            break;
        } else {
            return Usage("unknown option " + a);
        }
    }
    if (i >= argc) return Usage("no PROGRAM given");
    std::vector<std::string> extra;
    if (hasFailArgs) {
        std::string error;
        if (!engine::SplitCommandLine(failArgs, extra, error)) return Usage("--fail-args: " + error);
    }

    Interrupts interrupts;
    std::vector<std::string> job(argv + i, argv + argc);
    platform::SystemClock clock;
    const platform::Millis silenceMs = silenceSeconds * 1000;
    std::vector<Case> cases;
    auto report = [&](bool ok, const char* name, const std::string& detail) {
        cases.push_back({name, ok ? Verdict::Pass : Verdict::Fail, detail});
    };
    auto skip = [&](const char* name, const std::string& why) { cases.push_back({name, Verdict::Skip, why}); };
    // Why the cases still to come are not run; empty while they are.
    std::string stop;
    // Why the runs still to come that could hang as well are not run; empty while they are.
    std::string hung;
    auto stopped = [&]() -> const std::string& {
        if (stop.empty() && interrupts.Signal()) stop = "not judged: the checker was interrupted";
        return stop;
    };

    // Version: the hello of --version.
    std::string command;
    for (const auto& a : job) command += "\"" + a + "\" ";
    const auto check = engine::CheckEngineProgram(command, "", clock);
    report(check.ok, "version", check.ok ? check.version + ", protocol 1" : check.program + ": " + check.problem);
    // A program that cannot be started has nothing more to show.
    for (const char* fatal : {"not found", "not executable", "command line:"})
        if (!check.ok && check.problem.rfind(fatal, 0) == 0) stop = "not run: " + check.problem;

    // A whole job: progress, a result, nothing broken, never silent too long.
    const char* const jobCases[] = {"progress", "pass", "garbage", "silence", "protocol", "device"};
    Run pass;
    if (!stopped().empty()) {
        for (const char* name : jobCases) skip(name, stop);
    } else {
        pass = RunOnce(interrupts, clock, job, silenceMs);
    }
    if (stop.empty() && !stopped().empty()) {
        for (const char* name : jobCases) skip(name, stop);
    } else if (stop.empty()) {
        report(pass.progress > 0, "progress",
               std::to_string(pass.progress) + " progress, " + std::to_string(pass.steps) + " step, " +
                   std::to_string(pass.statuses) + " status, " + std::to_string(pass.switches) + " switch lines");
        report(pass.outcome.kind == JobOutcome::PASSED && !pass.outcome.killed, "pass",
               Describe(pass.outcome) + (pass.outcome.killed ? ", then had to be killed" : ""));
        if (!pass.Spoke()) {
            // Nothing written is no evidence of writing well.
            const std::string why = "not judged: no protocol line (" + Describe(pass.outcome) + ")";
            for (const char* name : {"garbage", "silence", "protocol", "device"}) skip(name, why);
        } else {
            const bool garbage = pass.Fault("garbage");
            const bool silent = pass.Fault("silent for");
            const bool version = pass.Fault("protocol version") || pass.Fault("before its hello");
            report(!garbage, "garbage", garbage ? pass.outcome.text : "every line free text or a valid protocol line");
            report(!silent, "silence",
                   silent ? pass.outcome.text : "longest gap between lines " + std::to_string(pass.longestGap) + " ms");
            report(!version, "protocol", version ? pass.outcome.text : "hello first, protocol version 1");
            const auto& after = pass.outcome.afterResult;
            if (pass.Fault("a device line"))
                report(false, "device", pass.outcome.text);
            else if (std::find(after.begin(), after.end(), engine::protocol::Event::DEVICE) != after.end())
                report(false, "device", "a device line after the result, which the station does not take");
            else if (pass.devices > 1)
                report(false, "device", std::to_string(pass.devices) + " device lines in one job, at most one allowed");
            else
                report(true, "device", pass.devices ? Identity(pass.device) : "none written (it is optional)");
        }
        if (!pass.Spoke()) stop = "not run: the job case wrote no protocol line";
        if (pass.Hung()) hung = "not run: the program hung in the job case (" + Describe(pass.outcome) + ")";
    }

    if (!hasFailArgs) {
        skip("fail", "no --fail-args given");
    } else if (!stopped().empty() || !hung.empty()) {
        skip("fail", stop.empty() ? hung : stop);
    } else {
        std::vector<std::string> failing = job;
        failing.insert(failing.end(), extra.begin(), extra.end());
        const Run fail = RunOnce(interrupts, clock, failing, silenceMs);
        if (!stopped().empty())
            skip("fail", stop);
        else
            report(fail.outcome.kind == JobOutcome::FAILED && !fail.outcome.killed, "fail", Describe(fail.outcome));
        if (fail.Hung()) hung = "not run: the program hung in the failing job (" + Describe(fail.outcome) + ")";
    }

    // Cancel: SIGTERM after the first progress line ends the program within the grace period.
    // A program that hung after its progress reaches that point again quickly.
    if (!stopped().empty() || (!hung.empty() && pass.progress == 0)) {
        skip("cancel", stop.empty() ? hung : stop);
    } else {
        const Run cancel = RunOnce(interrupts, clock, job, silenceMs, true);
        if (!stopped().empty())
            skip("cancel", stop);
        else
            report(cancel.outcome.kind == JobOutcome::CANCELLED && !cancel.outcome.killed, "cancel",
                   cancel.outcome.kind != JobOutcome::CANCELLED
                       ? "no progress to cancel at: " + Describe(cancel.outcome)
                   : cancel.outcome.killed
                       ? "ignored SIGTERM; killed after " + std::to_string(engine::kProgramGraceMs) + " ms"
                       : "ended on SIGTERM");
    }

    // The optional package-wide operations: a result, or an exit without one, conforms.
    char folder[] = "/tmp/quorvel-engine-check-XXXXXX";
    const std::string dir = ::mkdtemp(folder) ? std::string(folder) + "/" : "/tmp/";
    std::ofstream(dir + "CheckSum.ini") << "[CheckSum]\n";
    std::ofstream(dir + "image.bin") << "image\n";
    for (const auto& [name, operation] : {std::pair<const char*, std::vector<std::string>>{"preload", {"--preload"}},
                                          {"verify", {"--verify", dir + "CheckSum.ini"}}}) {
        if (!stopped().empty() || !hung.empty()) {
            skip(name, stop.empty() ? hung : stop);
            continue;
        }
        std::vector<std::string> args = job;
        args.insert(args.begin() + 1, operation.begin(), operation.end());
        const Run r = RunOnce(interrupts, clock, args, silenceMs);
        if (!stopped().empty()) {
            skip(name, stop);
            continue;
        }
        const bool offered = r.outcome.kind == JobOutcome::PASSED || r.outcome.kind == JobOutcome::FAILED;
        const bool absent = r.outcome.kind == JobOutcome::FAULT && r.outcome.noResult;
        report(offered || absent, name,
               offered  ? "offered, " + Describe(r.outcome)
               : absent ? "not offered (" + r.outcome.text + ")"
                        : r.outcome.text);
        if (r.Hung()) hung = std::string("not run: the program hung in the ") + name + " case";
    }
    std::error_code ec;
    if (dir != "/tmp/") std::filesystem::remove_all(dir, ec);

    const bool conforms = !interrupts.Signal() && std::none_of(cases.begin(), cases.end(), [](const Case& c) {
        return c.verdict == Verdict::Fail;
    });
    Print(cases, job[0], conforms, json);
    if (interrupts.Signal()) {
        const char* name = ::sigdescr_np(interrupts.Signal());  // strsignal shares a buffer between threads
        std::fprintf(stderr, "quorvel-engine-check: interrupted (%s); the program under test was ended\n",
                     name ? name : "a signal");
        return kExitFails;
    }
    return conforms ? kExitConforms : kExitFails;
}
