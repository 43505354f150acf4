// The engine-program checker, run as a program author runs it: what it judges, what it
// refuses to judge, how long a hanging program holds it up, and that stopping it stops
// the program under test.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <regex>

#include "support/Golden.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

// The programs under test: tests/engines/programs/.
std::string Programs() {
    return SourcePath("tests/engines/programs/");
}

TEST(EngineCheckTool, JudgesOnlyWhatRanAndRefusesBadOptions) {
    const std::string dir = Programs(), deaf = dir + "deaf.sh";
    const std::pair<const char*, std::string> runs[] = {
        {"help", "--help"},
        {"no_program", ""},
        {"silence_not_a_number", "--silence abc " + deaf},
        {"silence_zero", "--silence 0 " + deaf},
        {"fail_args_unquoted", "--fail-args '\"open' " + deaf},
        {"unknown_option", "--bogus " + deaf},
        // Nothing that never ran, or never spoke, passes a case.
        {"program_missing", dir + "missing"},
        {"program_mute", "/bin/true"},
        {"program_mute_json", "--json /bin/true"},
        // One silence waited out, not one per case; the cancel case still shows the deafness.
        {"program_deaf", "--silence 1 " + deaf},
        // The phone's identity: at most once, and before the result.
        {"device_twice", dir + "device.sh"},
        {"device_late", dir + "device.sh late"},
    };
    for (const auto& [name, args] : runs) {
        // A gap measured on a busy machine is no part of the verdict.
        const std::string out = std::regex_replace(RunTranscript("quorvel-engine-check", args, {{dir, "$DIR/"}}),
                                                   std::regex("between lines [0-9]+ ms"), "between lines N ms");
        EXPECT_TRUE(MatchesGolden(std::string("quorvel-engine-check/") + name + ".txt", out));
    }
}

// The program runs in a process group of its own, out of reach of a signal to the
// checker: the checker must end it itself.
TEST(EngineCheckTool, StoppingTheCheckerEndsTheProgramUnderTest) {
    TempDir dir;
    const auto r = RunCommand("export PIDS=" + dir.File("pids") + "; " + ToolPath("quorvel-engine-check") + " " +
                              Programs() + "deaf.sh & c=$!; sleep 1; kill -TERM $c; wait $c; echo checker=$?");
    EXPECT_NE(r.out.find("checker=1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("interrupted"), std::string::npos) << r.out;
    std::ifstream pids(dir.File("pids"));
    int runs = 0;
    for (pid_t pid; pids >> pid; ++runs) EXPECT_NE(::kill(pid, 0), 0) << "pid " << pid << " still runs";
    EXPECT_EQ(runs, 2);  // --version, then the job case it was stopped in
}

// The example program is as strict as the checker: a value that is not a number is a
// usage error, never a job with 0 in its place.
TEST(SimEngineTool, NumericOptionsMustBeNumbers) {
    std::string runs;
    for (const char* args : {"--duration abc", "--time-scale", "--size 10x"})
        runs += RunTranscript("quorvel-sim-engine", args);
    EXPECT_TRUE(MatchesGolden("quorvel-sim-engine/numbers_only.txt", runs));
}

}  // namespace
}  // namespace quorvel::test
