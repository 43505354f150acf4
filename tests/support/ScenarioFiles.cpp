#include "support/ScenarioFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "sim/Scenario.h"
#include "support/FixedOptions.h"
#include "support/StationFixture.h"

namespace quorvel::test {

namespace {

// The file's text, "$SOURCE/" standing for the source tree (a test's helper programs).
std::string Read(const std::string& path) {
    std::ifstream in(std::string(QUORVEL_SOURCE_DIR) + "/" + path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    std::string text = s.str();
    for (auto at = text.find("$SOURCE/"); at != std::string::npos; at = text.find("$SOURCE/", at))
        text.replace(at, 8, std::string(QUORVEL_SOURCE_DIR) + "/");
    return text;
}

// A sanitizer slows the station's own work several times, not the bench's clock: timed
// scenarios then run in real time so the phones' timings stay what the files say.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr double kMostSpeed = 1;
#else
constexpr double kMostSpeed = 1000;
#endif

}  // namespace

std::vector<Play> ScenarioPlays(bool udev) {
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
            const auto s = sim::ParseScenario(Read(f));
            // Unreadable files fail in the simulated bench's runner.
            for (const auto& engines : s ? s->engines : std::vector<std::string>{"sim"})
                if ((engines == "udev") == udev) plays.push_back({f, engines});
        }
    }
    return plays;
}

std::string PlayName(const Play& play) {
    std::string name = std::filesystem::path(play.file).stem().string() + "_" + play.engines;
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
}

void PlayScenarioFile(const Play& play, const TempDir& dir, const std::string& bench, const MakeTree& tree,
                      const platform::SysPaths& paths) {
    std::string error;
    const auto scenario = sim::ParseScenario(Read(play.file), &error);
    ASSERT_TRUE(scenario) << play.file << ": " << error;
    dir.Write("Config/CommonSetting.ini", UnboundSettings("CheckSum=0\nLANGUAGE=2052\n[BENCH]\n" + bench));
    platform::ScaledClock clock(std::min(scenario->speed, kMostSpeed));
    sim::ScenarioLog log;
    std::uint64_t results = 0;
    {
        const std::unique_ptr<console::DeviceTree> devices = tree ? tree(clock) : nullptr;
        console::ScenarioStation station(
            clock, [&] { return FixedOptions(dir.Path()); }, devices.get(), paths);
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

}  // namespace quorvel::test
