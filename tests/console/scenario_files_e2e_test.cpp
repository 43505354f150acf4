// Every scenario file, played against a whole headless station on the simulated bench,
// on each of the engines its "#@ engines:" line names. A file passes when its checks
// (await, expect) hold; one without checks when it ends with at least one result.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "console/ScenarioStation.h"
#include "sim/Scenario.h"
#include "support/FixedOptions.h"
#include "support/StationFixture.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

struct Play {
    std::string file;     // under the source tree
    std::string engines;  // sim, program, native-sprd
};

void PrintTo(const Play& play, std::ostream* os) {
    *os << play.file << " on " << play.engines;
}

std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<Play> Plays() {
    std::vector<Play> plays;
    for (const char* folder : {"tests/scenarios", "tools/quorvel-bench/scenarios"}) {
        std::vector<std::string> files;
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(std::string(QUORVEL_SOURCE_DIR) + "/" + folder, ec))
            if (e.path().extension() == ".txt")
                files.push_back(std::string(folder) + "/" + e.path().filename().string());
        std::sort(files.begin(), files.end());
        for (const auto& f : files) {
            // The native bench test plays it and also compares the phones' partitions
            // with the package's images.
            if (f.ends_with("/sprd_native16.txt")) continue;
            const auto s = sim::ParseScenario(Read(std::string(QUORVEL_SOURCE_DIR) + "/" + f));
            // Unreadable files fail in the test itself.
            for (const auto& engines : s ? s->engines : std::vector<std::string>{"sim"}) plays.push_back({f, engines});
        }
    }
    return plays;
}

class ScenarioFile : public ::testing::TestWithParam<Play> {};

// A sanitizer slows the station's own work several times, not the bench's clock: timed
// scenarios then run in real time so the phones' timings stay what the files say.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr double kMostSpeed = 1;
#else
constexpr double kMostSpeed = 1000;
#endif

TEST_P(ScenarioFile, Holds) {
    const Play& play = GetParam();
    std::string error;
    const auto scenario = sim::ParseScenario(Read(std::string(QUORVEL_SOURCE_DIR) + "/" + play.file), &error);
    ASSERT_TRUE(scenario) << play.file << ": " << error;
    TempDir dir;
    std::string bench = "[BENCH]\nSimulated=1\nHubs=1\nSocketsPerHub=4\n";
    if (play.engines == "program") bench += "EngineProgram=1\n";
    if (play.engines == "native-sprd") bench += "NativeSprd=1\n";
    dir.Write("Config/CommonSetting.ini", UnboundSettings("CheckSum=0\nLANGUAGE=2052\n" + bench));
    platform::ScaledClock clock(std::min(scenario->speed, kMostSpeed));
    sim::ScenarioLog log;
    std::uint64_t results = 0;
    {
        console::ScenarioStation station(clock, [&] { return FixedOptions(dir.Path()); });
        log = sim::RunScenario(*scenario, clock, station);
        station.Read([&](console::ScenarioStation::Process& p) { results = p.rig.Phones().Results().results; });
    }
    std::string steps;
    for (const auto& l : log.lines) steps += "  " + l + "\n";
    EXPECT_EQ(log.failure, "") << play.file << " on " << play.engines << ":\n" << steps;
    const bool checks = std::any_of(scenario->steps.begin(), scenario->steps.end(), [](const sim::ScenarioStep& s) {
        return s.action == sim::ScenarioStep::AWAIT || s.action == sim::ScenarioStep::EXPECT;
    });
    if (!checks) {
        EXPECT_GT(results, 0u) << play.file << ": no job gave a result";
    }
}

INSTANTIATE_TEST_SUITE_P(Files, ScenarioFile, ::testing::ValuesIn(Plays()), [](const auto& info) {
    std::string name = std::filesystem::path(info.param.file).stem().string() + "_" + info.param.engines;
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
});

}  // namespace
}  // namespace quorvel::test
