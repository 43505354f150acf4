// The engine-program checker, run as a program author runs it: what it judges, what it
// refuses to judge, how long a hanging program holds it up, and that stopping it stops
// the program under test.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "support/RunTool.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

// Says hello, reports progress once, then hangs deaf to SIGTERM; notes its pid.
void WriteDeafProgram(const TempDir& dir) {
    dir.Write("deaf.sh",
              "#!/bin/sh\ntrap '' TERM\necho $$ >> " + dir.File("pids") +
                  "\necho '{\"t\":\"hello\",\"protocol\":1,\"program\":\"deaf 1\"}'\n"
                  "[ \"$1\" = --version ] && exit 0\necho '{\"t\":\"progress\",\"percent\":10}'\n"
                  "while :; do sleep 0.1; done\n");
    ::chmod(dir.File("deaf.sh").c_str(), 0755);
}

TEST(EngineCheckTool, JudgesOnlyWhatRanAndRefusesBadOptions) {
    TempDir dir;
    WriteDeafProgram(dir);
    const std::string deaf = dir.File("deaf.sh");
    const struct {
        std::string args;
        int exitCode;
        std::vector<std::string> shown;
        std::vector<std::string> notShown;
    } rows[] = {
        {"--help", 0, {"Exit status"}, {}},
        {"", 2, {"no PROGRAM given"}, {}},
        {"--silence abc " + deaf, 2, {"--silence needs whole seconds"}, {}},
        {"--silence 0 " + deaf, 2, {"--silence needs whole seconds"}, {}},
        {"--fail-args '\"open' " + deaf, 2, {"--fail-args"}, {}},
        {"--bogus " + deaf, 2, {"unknown option --bogus"}, {}},
        // Nothing that never ran, or never spoke, passes a case.
        {dir.File("missing"), 1, {"FAIL  version", "SKIP  pass      not run: not found"}, {"PASS"}},
        {"/bin/true", 1, {"SKIP  garbage   not judged: no protocol line"}, {"PASS"}},
        {"--json /bin/true", 1, {"{\"program\":\"/bin/true\",\"conforms\":false,\"cases\":[", "\"verdict\":\"skip\""},
         {"PASS"}},
        // One silence waited out, not one per case; the cancel case still shows the deafness.
        {"--silence 1 " + deaf,
         1,
         {"FAIL  silence", "FAIL  cancel    ignored SIGTERM",
          "SKIP  preload   not run: the program hung in the job case"},
         {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.args);
        const auto r = RunCommand(ToolPath("quorvel-engine-check") + " " + row.args);
        EXPECT_EQ(r.exitCode, row.exitCode) << r.out;
        for (const auto& s : row.shown) EXPECT_NE(r.out.find(s), std::string::npos) << s << "\n" << r.out;
        for (const auto& s : row.notShown) EXPECT_EQ(r.out.find(s), std::string::npos) << s << "\n" << r.out;
        if (row.exitCode == 2) {
            EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
        }
    }
}

// The program runs in a process group of its own, out of reach of a signal to the
// checker: the checker must end it itself.
TEST(EngineCheckTool, StoppingTheCheckerEndsTheProgramUnderTest) {
    TempDir dir;
    WriteDeafProgram(dir);
    const auto r = RunCommand("cd " + dir.Path() + " && { " + ToolPath("quorvel-engine-check") +
                              " ./deaf.sh & c=$!; sleep 1; kill -TERM $c; wait $c; echo checker=$?; }");
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
    for (const char* args : {"--duration abc", "--time-scale", "--size 10x"}) {
        const auto r = RunCommand(ToolPath("quorvel-sim-engine") + " " + args);
        EXPECT_EQ(r.exitCode, 2) << args << ": " << r.out;
        EXPECT_EQ(r.out.find("\"t\":\"result\""), std::string::npos) << args << ": " << r.out;
        EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
    }
}

}  // namespace
}  // namespace quorvel::test
