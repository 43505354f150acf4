#include <gtest/gtest.h>

#include "slots/EngineHarness.h"
#include "platform/ProfileIni.h"

namespace quorvel::engine {
namespace {

using test::EngineHarness;

// Sixteen slots, each serving phones of the three platforms in turn, all at once.
TEST(EngineConcurrency, SixteenSlotsOfEveryPlatformCountEveryJob) {
    constexpr int kSlots = 16;
    constexpr int kRounds = 3;
    EngineHarness h(kSlots);
    h.ReplugSprdOnSwitch(1500);
    h.StartStation();

    std::uint32_t expectedFail = 0;
    std::vector<int> passed(kSlots, 0);
    for (int round = 0; round < kRounds; ++round) {
        for (int slot = 0; slot < kSlots; ++slot) {
            SCOPED_TRACE("slot " + std::to_string(slot) + " round " + std::to_string(round));
            const int platform = (slot + round) % 3;
            const bool fails = (slot + round) % 4 == 0;
            expectedFail += fails ? 1 : 0;
            passed[static_cast<std::size_t>(slot)] += fails ? 0 : 1;
            PhoneProfile p{.durationMs = 3000 + 500 * slot, .pass = !fails};
            const std::string id = "phone-" + std::to_string(round) + "-" + std::to_string(slot);
            const std::string port = "(COM" + std::to_string(slot + 1) + ")";
            if (platform == 0) {
                h.registry.SetProfile(id, p);
                h.HandOver(slot, h.Device(app::EVENT_MTK, "MTK PreLoader " + port, id));
            } else if (platform == 1) {
                p.failingStep = fails ? 6 : -1;  // a phase-2 step
                h.registry.SetPortProfile(static_cast<unsigned long>(slot + 1), p);
                h.HandOver(slot, h.Device(app::EVENT_SPRD, "SPRD U2S Diag " + port, id));
            } else {
                h.registry.SetProfile(id, p);
                h.HandOver(slot, h.Device(app::EVENT_CFG, "MTK CFG " + port, id));
            }
        }
        const auto jobs = static_cast<std::uint32_t>(kSlots * (round + 1));
        ASSERT_TRUE(h.RunUntil([&] { return h.Total() == jobs; })) << "round " << round;
        // Let every worker finish its end steps (the CFG batch end sleeps a second).
        for (int i = 0; i < 3; ++i) {
            h.Settle();
            h.fx.clock.Advance(1000);
        }
        h.Settle();
        EXPECT_EQ(h.Fail(), expectedFail) << "round " << round;
        for (int slot = 0; slot < kSlots; ++slot) {
            SCOPED_TRACE("slot " + std::to_string(slot) + " round " + std::to_string(round));
            const int platform = (slot + round) % 3;
            const bool fails = (slot + round) % 4 == 0;
            const std::string counts =
                "(" + std::to_string(passed[static_cast<std::size_t>(slot)]) + "/" + std::to_string(round + 1) + ")";
            EXPECT_EQ(h.Result(slot), (fails ? "FAIL" : "PASS") + counts);
            // MTK and SPRD slots end bound again; a CFG slot stays BUSY until the console's Stop.
            EXPECT_EQ(h.State(slot), platform == 2 ? app::BIND_BUSY : app::BIND_ALL_BINDED);
            if (platform == 0 && !fails) {
                EXPECT_EQ(h.Bar(slot), "Download Completely!(100%)");
            }
            if (platform == 1) {
                EXPECT_EQ(h.Bar(slot), fails ? "Failed: Downloading... failed" : "Passed");
            }
        }
    }
    for (int slot = 0; slot < kSlots; ++slot)
        EXPECT_EQ(h.manager->WorkerAt(slot)->Display().State().jobCount, static_cast<std::uint32_t>(kRounds)) << slot;
    const std::string file = h.fx.dir.File("Config/TestResult.ini");
    EXPECT_EQ(platform::ProfileIni::ReadInt(file, "total", "NUM", 0), kSlots * kRounds);
    EXPECT_EQ(platform::ProfileIni::ReadInt(file, "fail", "NUM", 0), expectedFail);
    EXPECT_GE(h.startStopCommands.load(), 1);  // each round's CFG batch stopped the run at its end
}

}  // namespace
}  // namespace quorvel::engine
