// The bench tool, run as a program: its arguments and where its writes go.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "platform/MachineStamp.h"
#include "platform/ProfileIni.h"
#include "support/Golden.h"
#include "support/StationFixture.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

std::string Tool() {
    return test::ToolPath("quorvel-bench");
}

TEST(QuorvelBenchTool, CommandLineAndExitCodes) {
    TempDir dir;
    dir.Write("s.txt", "0 end\n");
    const std::string args = dir.Path() + " " + dir.File("s.txt");
    const std::pair<const char*, std::string> runs[] = {
        {"help", "--help"},
        {"no_arguments", ""},
        {"unknown_option", args + " --bogus"},
        {"two_stations", args + " " + args},
        {"speed_missing", args + " --speed"},
        {"scenario_missing", dir.Path() + " " + dir.File("missing.txt")},
    };
    const Scrubs scrubs{{dir.Path(), "$DIR/"}};
    for (const auto& [name, line] : runs)
        EXPECT_TRUE(
            MatchesGolden(std::string("quorvel-bench/") + name + ".txt", RunTranscript("quorvel-bench", line, scrubs)));
    std::string speeds;
    for (const char* speed : {"inf", "nan", "1e7", "0", "-3", "10x", ""})
        speeds += RunTranscript("quorvel-bench", args + " --speed '" + speed + "'", scrubs);
    EXPECT_TRUE(MatchesGolden("quorvel-bench/speed_out_of_range.txt", speeds));
}

// The station makes the package folder the current one: a relative station folder
// must still receive the counters and bindings. A run where no job ends is a failure,
// and every run clears what killed writers left.
TEST(QuorvelBenchTool, RelativeStationFolderKeepsItsWrites) {
    TempDir dir;
    dir.Write("station/fw/MT6765_Android_scatter.txt", "scatter\n");
    dir.Write("station/Config/CommonSetting.ini",
              UnboundSettings("CheckSum=0\nFilePath=" + dir.File("station/fw/MT6765_Android_scatter.txt") +
                                  "\n[BENCH]\nSimulated=1\nHubs=1\nSocketsPerHub=2\n",
                              platform::FirstAdapterMac()));  // the tool's stamp, so the package is kept
    // Left by a writer killed before its rename (no process has that id).
    dir.Write("station/Config/TestResult.ini.tmp4194304.1", "[total]\n");
    dir.Write("idle.txt", "0 press\n1000 end\n");
    const auto idle = test::RunCommand("cd " + dir.Path() + " && " + Tool() + " station idle.txt --speed 20");
    EXPECT_EQ(idle.exitCode, 1) << idle.out;
    EXPECT_NE(idle.out.find("no job gave a result"), std::string::npos) << idle.out;
    EXPECT_FALSE(std::filesystem::exists(dir.File("station/Config/TestResult.ini.tmp4194304.1")));

    dir.Write("s.txt", "0 press\n200 plug 0 brom duration=500\n8000 end\n");
    const auto r = test::RunCommand("cd " + dir.Path() + " && " + Tool() + " station s.txt --speed 20");
    ASSERT_EQ(r.exitCode, 0) << r.out;
    EXPECT_NE(r.out.find("phones: plugged 1, served 1, results 1"), std::string::npos) << r.out;
    EXPECT_EQ(platform::ProfileIni::ReadInt(dir.File("station/Config/TestResult.ini"), "total", "NUM", 0), 1);
    EXPECT_EQ(platform::ProfileIni::ReadString(dir.File("station/Config/CommonSetting.ini"), "BROMPORTINFO", "Index0",
                                               "", 260),
              "2-1\\PORT1");
    EXPECT_FALSE(std::filesystem::exists(dir.File("station/fw/Config")));
}

}  // namespace
}  // namespace quorvel::test
