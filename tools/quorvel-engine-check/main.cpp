// Conformance kit for authors of engine programs: runs a program through the cases of
// the engine line protocol (docs/engine-protocol.md) and prints what conforms.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "engine/ProgramCheck.h"
#include "engine/ProgramJob.h"
#include "engine/ProgramSettings.h"

namespace {

using namespace quorvel;
using engine::JobOutcome;

int failures = 0;

void Report(bool ok, const char* name, const std::string& detail) {
    std::printf("%s  %-13s %s\n", ok ? "PASS" : "FAIL", name, detail.c_str());
    if (!ok) ++failures;
}

struct Run {
    JobOutcome outcome;
    int progress = 0, steps = 0, statuses = 0, switches = 0;
    platform::Millis longestGap = 0;
};

Run RunOnce(platform::Clock& clock, std::vector<std::string> argv, platform::Millis silenceMs,
            const std::function<void(engine::ProgramJob&)>& onFirstProgress = nullptr) {
    engine::ProgramJob job(clock);
    Run r;
    platform::Millis last = clock.Now();
    engine::JobRequest request{std::move(argv), "", silenceMs, engine::kProgramGraceMs, false, 0};
    r.outcome = job.Run(request, [&](const engine::protocol::Event& e) {
        const platform::Millis now = clock.Now();
        r.longestGap = std::max(r.longestGap, now - last);
        last = now;
        switch (e.type) {
            case engine::protocol::Event::PROGRESS:
                if (r.progress++ == 0 && onFirstProgress) onFirstProgress(job);
                break;
            case engine::protocol::Event::STEP: ++r.steps; break;
            case engine::protocol::Event::STATUS: ++r.statuses; break;
            case engine::protocol::Event::SWITCH: ++r.switches; break;
            default: break;
        }
    });
    return r;
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

}  // namespace

int main(int argc, char** argv) {
    std::string failArgs;
    long silenceSeconds = 60;
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] == '-'; ++i) {
        const std::string a = argv[i];
        if (a == "--fail-args" && i + 1 < argc)
            failArgs = argv[++i];
        else if (a == "--silence" && i + 1 < argc)
            silenceSeconds = std::atol(argv[++i]);
        else if (a == "--") {
            ++i;
            break;
        } else {
            std::fprintf(stderr, "unknown option %s\n", a.c_str());
            return 2;
        }
    }
    if (i >= argc) {
        std::puts(
            "usage: quorvel-engine-check [--fail-args \"ARGS\"] [--silence SECONDS] PROGRAM [ARGS...]\n"
            "Runs PROGRAM ARGS as the station would for one job and checks it against the engine line\n"
            "protocol: its --version hello, a job with progress and a passing result, a failing job\n"
            "(PROGRAM ARGS FAIL-ARGS, when given), cancel by SIGTERM, no garbage, no silence longer\n"
            "than SECONDS (60), the protocol version, and --preload and --verify answered with a\n"
            "result or left out. Exit status 0 when everything conforms.");
        return 2;
    }
    std::vector<std::string> job(argv + i, argv + argc);
    platform::SystemClock clock;
    const platform::Millis silenceMs = silenceSeconds * 1000;

    // Version: the hello of --version.
    std::string command;
    for (const auto& a : job) command += "\"" + a + "\" ";
    const auto check = engine::CheckEngineProgram(command, "", clock);
    Report(check.ok, "version", check.ok ? check.version + ", protocol 1" : check.program + ": " + check.problem);

    // A whole job: progress, a result, nothing broken, never silent too long.
    const Run pass = RunOnce(clock, job, silenceMs);
    const bool garbage =
        pass.outcome.kind == JobOutcome::FAULT && pass.outcome.text.find("garbage") != std::string::npos;
    const bool silent = pass.outcome.kind == JobOutcome::FAULT && pass.outcome.text.find("silent") != std::string::npos;
    const bool version =
        pass.outcome.kind == JobOutcome::FAULT && (pass.outcome.text.find("protocol version") != std::string::npos ||
                                                   pass.outcome.text.find("before its hello") != std::string::npos);
    Report(pass.progress > 0, "progress",
           std::to_string(pass.progress) + " progress, " + std::to_string(pass.steps) + " step, " +
               std::to_string(pass.statuses) + " status, " + std::to_string(pass.switches) + " switch lines");
    Report(pass.outcome.kind == JobOutcome::PASSED && !pass.outcome.killed, "pass",
           Describe(pass.outcome) + (pass.outcome.killed ? ", then had to be killed" : ""));
    Report(!garbage, "garbage", garbage ? pass.outcome.text : "every line free text or a valid protocol line");
    Report(!silent, "silence",
           silent ? pass.outcome.text : "longest gap between lines " + std::to_string(pass.longestGap) + " ms");
    Report(!version, "protocol", version ? pass.outcome.text : "hello first, protocol version 1");

    if (!failArgs.empty()) {
        std::vector<std::string> failing = job;
        std::vector<std::string> extra;
        std::string error;
        if (engine::SplitCommandLine(failArgs, extra, error)) failing.insert(failing.end(), extra.begin(), extra.end());
        const Run fail = RunOnce(clock, failing, silenceMs);
        Report(fail.outcome.kind == JobOutcome::FAILED && !fail.outcome.killed, "fail", Describe(fail.outcome));
    } else {
        std::puts("SKIP  fail          no --fail-args given");
    }

    // Cancel: SIGTERM after the first progress line ends the program within the grace period.
    const Run cancel = RunOnce(clock, job, silenceMs, [](engine::ProgramJob& j) { j.Cancel(); });
    Report(cancel.outcome.kind == JobOutcome::CANCELLED && !cancel.outcome.killed, "cancel",
           cancel.outcome.kind != JobOutcome::CANCELLED ? "no progress to cancel at: " + Describe(cancel.outcome)
           : cancel.outcome.killed ? "ignored SIGTERM; killed after " + std::to_string(engine::kProgramGraceMs) + " ms"
                                   : "ended on SIGTERM");
    // The optional package-wide operations: a result, or an exit without one, conforms.
    char folder[] = "/tmp/quorvel-engine-check-XXXXXX";
    const std::string dir = ::mkdtemp(folder) ? std::string(folder) + "/" : "/tmp/";
    std::ofstream(dir + "CheckSum.ini") << "[CheckSum]\n";
    std::ofstream(dir + "image.bin") << "image\n";
    for (const auto& [name, operation] : {std::pair<const char*, std::vector<std::string>>{"preload", {"--preload"}},
                                          {"verify", {"--verify", dir + "CheckSum.ini"}}}) {
        std::vector<std::string> argv = job;
        argv.insert(argv.begin() + 1, operation.begin(), operation.end());
        const Run r = RunOnce(clock, argv, silenceMs);
        const bool offered = r.outcome.kind == JobOutcome::PASSED || r.outcome.kind == JobOutcome::FAILED;
        const bool absent = r.outcome.kind == JobOutcome::FAULT && r.outcome.noResult;
        Report(offered || absent, name,
               offered  ? "offered, " + Describe(r.outcome)
               : absent ? "not offered (" + r.outcome.text + ")"
                        : r.outcome.text);
    }
    std::error_code ec;
    if (dir != "/tmp/") std::filesystem::remove_all(dir, ec);
    std::printf("%s\n", failures ? "does not conform" : "conforms to engine line protocol 1");
    return failures ? 1 : 0;
}
