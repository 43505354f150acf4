#include "engines/program/ProgramCheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "engines/program/ProgramJob.h"
#include "engines/program/ProgramSettings.h"

namespace quorvel::engine {

namespace {

// PATH lookup as the spawn does it; empty when not found.
std::string FindInPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
    for (std::size_t start = 0; start <= dirs.size();) {
        std::size_t colon = dirs.find(':', start);
        if (colon == std::string::npos) colon = dirs.size();
        std::string candidate = dirs.substr(start, colon - start);
        if (candidate.empty()) candidate = ".";
        candidate.append("/").append(name);
        if (::access(candidate.c_str(), F_OK) == 0) return candidate;
        start = colon + 1;
    }
    return "";
}

}  // namespace

ProgramCheckResult CheckEngineProgram(const std::string& commandLine, const std::string& stationDir,
                                      platform::Clock& clock) {
    ProgramCheckResult r;
    std::vector<std::string> args;
    std::string error;
    if (!SplitCommandLine(commandLine, args, error)) {
        r.problem = "command line: " + error;
        return r;
    }
    r.program = ResolveProgram(args[0], stationDir);
    if (r.program.find('/') == std::string::npos) {
        const std::string found = FindInPath(r.program);
        if (found.empty()) {
            r.problem = "not found in PATH";
            return r;
        }
        r.program = found;
    }
    struct stat st {};
    if (::stat(r.program.c_str(), &st) != 0) {
        r.problem = "not found";
        return r;
    }
    if (!S_ISREG(st.st_mode) || ::access(r.program.c_str(), X_OK) != 0) {
        r.problem = "not executable";
        return r;
    }
    ProgramJob job(clock);
    JobRequest request{{r.program, "--version"}, "", 5000, 1000, false, 0};
    const JobOutcome outcome = job.Run(request, [](const protocol::Event&) {});
    // A hello of the right version and then an exit without a result is the answer expected.
    const std::string noResult = "without a result";
    if (outcome.kind == JobOutcome::FAULT && outcome.text.find("exited with code 0 " + noResult) != std::string::npos &&
        !job.LastHello().empty()) {
        r.ok = true;
        r.version = job.LastHello();
        return r;
    }
    if (outcome.kind == JobOutcome::FAULT && outcome.text.find("speaks protocol version") != std::string::npos) {
        r.problem = outcome.text.substr(outcome.text.find("speaks"));
        return r;
    }
    r.problem = "does not answer --version with its hello (" +
                (outcome.kind == JobOutcome::FAULT ? outcome.text : std::string("it ran a job")) + ")";
    return r;
}

}  // namespace quorvel::engine
