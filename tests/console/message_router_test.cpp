#include <gtest/gtest.h>

#include "slots/EngineHarness.h"

namespace quorvel::console {
namespace {

using test::EngineHarness;
constexpr std::uint32_t kApp = app::WM_APP;

// Steps named by number, so the routing's counter shows in the names it asks for.
class NamingSprd final : public engine::SprdEngine {
public:
    void SetSPRDParameters(int, unsigned long, std::string, std::vector<app::DlFileInfo>, std::string) override {}
    int StartWork() override { return 0; }
    int StartOnePortWork(unsigned long, int) override { return 0; }
    int StopOnePortWork(unsigned long, int) override { return 0; }
    std::string GetStepName(int step) override { return "step" + std::to_string(step); }
};

class MessageRouterTest : public ::testing::Test {
protected:
    MessageRouterTest() {
        h.st.bindings.SetComName(0, "Other (COM5)");
        h.st.bindings.SetComName(1, "Diag (COM1)");
        h.st.bindings.SetComName(2, "Diag (COM12)");
    }
    platform::LResult Send(std::uint32_t msg, platform::WParam w, platform::LParam l = 0) {
        return h.loop.Send(msg, w, l);
    }
    std::string Bar(int slot) { return h.Bar(slot); }

    EngineHarness h{8, {.sprd = [] { return std::make_unique<NamingSprd>(); }}};
};

TEST_F(MessageRouterTest, StepMessagesGoToTheSlotOfThePortOrNowhere) {
    EXPECT_EQ(h.router->SlotOfPort(12), 2);
    EXPECT_EQ(h.router->SlotOfPort(1), 1);
    Send(kApp + 205, 12);
    EXPECT_EQ(Bar(2), "Connecting");
    EXPECT_NE(Bar(1), "Connecting");
    Send(kApp + 204, 1);
    EXPECT_EQ(Bar(1), "Checking baudrate");
    Send(kApp + 214, 1);
    EXPECT_EQ(Bar(1), "Change Baud");
    Send(kApp + 207, 1);
    Send(kApp + 208, 1, 64);
    EXPECT_EQ(Bar(1), "[Step:] Downloading...(64%)");
    engine::SprdPortResult record{};
    Send(kApp + 217, 1, reinterpret_cast<platform::LParam>(&record));
    EXPECT_EQ(h.Result(1), "PASS(1/1)");

    h.st.bindings.SetComName(0, "Phone (COM1)");
    EXPECT_EQ(h.router->SlotOfPort(1), 0);  // the first slot that matches
    EXPECT_EQ(h.router->SlotOfPort(2), -1);

    // Messages without a slot change nothing.
    const auto before = h.st.slotList.Snapshot();
    Send(kApp + 205, 77);                                           // no slot has COM77
    Send(app::MSG_SLOT_PROGRESS, engine::PackProgress(2, 20), 50);  // row 20 of 8
    h.st.bindings.SetComName(9, "Far (COM40)");                     // slot 9 has no row
    Send(kApp + 205, 40);
    EXPECT_EQ(h.st.slotList.Snapshot().version, before.version);
}

TEST_F(MessageRouterTest, StepNamesAreNumberedFromTheWorkStart) {
    Send(kApp + 202, 12);  // before any start: step 0
    Send(kApp + 201, 12);
    for (int i = 0; i < 3; ++i) {
        Send(kApp + 202, 12);
        Send(kApp + 208, 12, 10);
        EXPECT_EQ(Bar(2), "[Step:step" + std::to_string(i) + "] (10%)");
    }
    EXPECT_EQ(h.router->SlotStepCounter(2), 3u);
    Send(kApp + 201, 12);
    EXPECT_EQ(h.router->SlotStepCounter(2), 0u);
}

TEST_F(MessageRouterTest, ProgressGoesToTheRowInItsWParamAndTimersShowElapsedTime) {
    Send(app::MSG_SLOT_PROGRESS, engine::PackProgress(2, 3, 7), 55);
    EXPECT_EQ(Bar(3), "(0/0)(55%)");
    h.st.slots.startTime[4] = h.fx.clock.WallSeconds() - 61;
    h.loop.SetTimer(4, 1000);
    ASSERT_TRUE(h.RunUntil([&] { return h.st.slotList.CellText(4, app::COL_TIMER) == "00:01:02"; }));  // one tick later
    h.loop.KillTimer(4);
}

}  // namespace
}  // namespace quorvel::console
