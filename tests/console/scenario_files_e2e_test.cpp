// Every scenario file, played against a whole headless station on the simulated bench,
// on each of the engines its "#@ engines:" line names but udev (devices/ plays those).
// A file passes when its checks (await, expect) hold; one without checks when it ends
// with at least one result.
#include <gtest/gtest.h>

#include "support/ScenarioFiles.h"

namespace quorvel::test {
namespace {

class ScenarioFile : public ::testing::TestWithParam<Play> {};

TEST_P(ScenarioFile, Holds) {
    const Play& play = GetParam();
    std::string bench = "Simulated=1\nHubs=1\nSocketsPerHub=4\n";
    if (play.engines == "program") bench += "EngineProgram=1\n";
    if (play.engines == "native-sprd") bench += "NativeSprd=1\n";
    TempDir dir;
    PlayScenarioFile(play, dir, bench);
}

INSTANTIATE_TEST_SUITE_P(Files, ScenarioFile, ::testing::ValuesIn(ScenarioPlays(false)),
                         [](const auto& info) { return PlayName(info.param); });

}  // namespace
}  // namespace quorvel::test
