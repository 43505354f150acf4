#pragma once
// The scenario files of the source tree and their play against a whole headless
// station, shared by the runner on the simulated bench and the one on device trees.

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "console/ScenarioStation.h"
#include "support/TempDir.h"

namespace quorvel::test {

struct Play {
    std::string file;     // under the source tree
    std::string engines;  // sim, program, native-sprd, udev
};

inline void PrintTo(const Play& play, std::ostream* os) {
    *os << play.file << " on " << play.engines;
}

// Every file on each of its engines; `udev` picks the plays on device trees, or all others.
std::vector<Play> ScenarioPlays(bool udev);
// "file_engines", for a test's name.
std::string PlayName(const Play& play);

// Plays the file in the station folder `dir` whose settings end in the `bench` lines
// ("$SOURCE/" in the file stands for the source tree, for helper programs of tests);
// a failure is reported to the running test. A file without checks must end with a result.
// `tree` makes the real bench's device tree on the scenario's clock.
using MakeTree = std::function<std::unique_ptr<console::DeviceTree>(platform::Clock&)>;
void PlayScenarioFile(const Play& play, const TempDir& dir, const std::string& bench, const MakeTree& tree = {},
                      const platform::SysPaths& paths = {});

}  // namespace quorvel::test
