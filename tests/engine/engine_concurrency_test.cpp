#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "platform/ProfileIni.h"

namespace quorvel::engine {
namespace {

using test::EngineHarness;

// Sixteen slots, each serving phones of the three platforms in turn, all at once.
TEST(EngineConcurrency, SixteenSlotsOfEveryPlatformCountEveryJob) {
    constexpr int kSlots = 16;
    constexpr int kRounds = 3;
    EngineHarness h(kSlots);
    auto& st = *h.fx.station;
    h.registry.SetSwitchHook([&h](const SwitchEvent& e) {
        if (e.kind != SwitchEvent::SPRD_TO_DOWNLOAD_PORT) return;
        const int slot = static_cast<int>(e.comPort) - 1;
        const auto d = h.Device(app::EVENT_SPRD, "SPRD DL (COM" + std::to_string(e.comPort) + ")", "dl");
        h.Later(1500, [&h, slot, d] {
            h.manager->WorkerAt(slot)->SetThreadIndex(slot);
            h.manager->WorkerAt(slot)->AcceptDevice(d);
        });
    });
    h.StartStation();

    std::uint32_t expectedFail = 0;
    std::vector<int> passed(kSlots, 0);
    for (int round = 0; round < kRounds; ++round) {
        for (int slot = 0; slot < kSlots; ++slot) {
            const int platform = (slot + round) % 3;
            const bool fails = (slot + round) % 4 == 0;
            expectedFail += fails ? 1 : 0;
            passed[static_cast<std::size_t>(slot)] += fails ? 0 : 1;
            PhoneProfile p;
            p.pass = !fails;
            p.durationMs = 3000 + 500 * slot;
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
        ASSERT_TRUE(h.RunUntil([&] { return st.statistics.Total() == jobs; })) << "round " << round;
        // Let every worker finish its end steps (the CFG batch end sleeps a second).
        for (int i = 0; i < 3; ++i) {
            h.Settle();
            h.fx.clock.Advance(1000);
        }
        h.Settle();
        EXPECT_EQ(st.statistics.Fail(), expectedFail) << "round " << round;
        for (int slot = 0; slot < kSlots; ++slot) {
            const int platform = (slot + round) % 3;
            const bool fails = (slot + round) % 4 == 0;
            const std::string counts =
                "(" + std::to_string(passed[static_cast<std::size_t>(slot)]) + "/" + std::to_string(round + 1) + ")";
            EXPECT_EQ(h.Result(slot), (fails ? "FAIL" : "PASS") + counts) << "slot " << slot << " round " << round;
            // MTK and SPRD slots end bound again; a CFG slot stays BUSY until the console's Stop.
            EXPECT_EQ(h.State(slot), platform == 2 ? app::BIND_BUSY : app::BIND_ALL_BINDED) << "slot " << slot;
            if (platform == 0 && !fails) {
                EXPECT_EQ(h.Bar(slot), "Download Completely!(100%)") << "slot " << slot;
            }
            if (platform == 1) {
                EXPECT_EQ(h.Bar(slot), fails ? "Failed: Downloading... failed" : "Passed");
            }
        }
    }
    for (int slot = 0; slot < kSlots; ++slot) {
        const auto* w = h.manager->WorkerAt(slot);
        EXPECT_EQ(const_cast<DownloadWorker*>(w)->Display().JobCount(), static_cast<std::uint32_t>(kRounds)) << slot;
    }
    const std::string file = h.fx.dir.File("Config/TestResult.ini");
    EXPECT_EQ(platform::ProfileIni::ReadInt(file, "total", "NUM", 0), kSlots * kRounds);
    EXPECT_EQ(platform::ProfileIni::ReadInt(file, "fail", "NUM", 0), expectedFail);
    EXPECT_GE(h.startStopCommands.load(), 1);  // each round's CFG batch stopped the run at its end
}

}  // namespace
}  // namespace quorvel::engine
