// A whole station, headless, on the simulated bench. Its runs are scenario files
// (tests/scenarios/); what no scenario can set up stays here.

#include <gtest/gtest.h>

#include <filesystem>

#include "support/StationFixture.h"
#include "support/StationProcess.h"
#include "support/TempDir.h"

namespace quorvel::console {
namespace {

// A start-up that fails for want of CommonSetting.ini ends without creating it.
TEST(StationRunE2e, FailedStartUpSavesNothingAtExit) {
    test::TempDir dir;
    {
        test::StationProcess p(dir);
        EXPECT_FALSE(p.Init());
    }
    EXPECT_FALSE(std::filesystem::exists(dir.File("Config/CommonSetting.ini")));
}

}  // namespace
}  // namespace quorvel::console
