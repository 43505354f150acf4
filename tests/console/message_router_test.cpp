#include <gtest/gtest.h>

#include "slots/EngineHarness.h"

namespace quorvel::console {
namespace {

using app::SprdStep;
using test::EngineHarness;

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
    void Step(unsigned long port, SprdStep step) { h.loop.Send(app::SprdStepEntered{port, step}); }
    void Percent(unsigned long port, std::uint32_t percent) { h.loop.Send(app::SprdProgress{port, percent}); }
    std::string Bar(int slot) { return h.Bar(slot); }

    EngineHarness h{8, {.sprd = [] { return std::make_unique<NamingSprd>(); }}};
};

TEST_F(MessageRouterTest, StepMessagesGoToTheSlotOfThePortOrNowhere) {
    EXPECT_EQ(h.router->SlotOfPort(12), 2);
    EXPECT_EQ(h.router->SlotOfPort(1), 1);
    Step(12, SprdStep::CONNECTING);
    EXPECT_EQ(Bar(2), "Connecting");
    EXPECT_NE(Bar(1), "Connecting");
    Step(1, SprdStep::CHECK_BAUD);
    EXPECT_EQ(Bar(1), "Checking baudrate");
    Step(1, SprdStep::CHANGE_BAUD);
    EXPECT_EQ(Bar(1), "Change Baud");
    Step(1, SprdStep::ERASING);  // announced, not shown
    EXPECT_EQ(Bar(1), "Change Baud");
    Step(1, SprdStep::DOWNLOADING);
    Percent(1, 64);
    EXPECT_EQ(Bar(1), "[Step:] Downloading...(64%)");
    h.loop.Send(app::SprdResult{1, "", false});
    EXPECT_EQ(h.Result(1), "PASS(1/1)");

    h.st.bindings.SetComName(0, "Phone (COM1)");
    EXPECT_EQ(h.router->SlotOfPort(1), 0);  // the first slot that matches
    EXPECT_EQ(h.router->SlotOfPort(2), -1);

    // Messages without a slot change nothing.
    const auto before = h.st.slotList.Snapshot();
    Step(77, SprdStep::CONNECTING);                             // no slot has COM77
    h.loop.Send(app::SlotBar{20, app::BarValue::PERCENT, 50});  // row 20 of 8
    h.loop.Send(app::SlotStatus{-1, "nowhere"});                // no row at all
    h.st.bindings.SetComName(9, "Far (COM40)");                 // slot 9 has no row
    Step(40, SprdStep::CONNECTING);
    EXPECT_EQ(h.st.slotList.Snapshot().version, before.version);
}

TEST_F(MessageRouterTest, StepNamesAreNumberedFromTheWorkStart) {
    h.loop.Send(app::SprdStepNamed{12});  // before any start: step 0
    h.loop.Send(app::SprdBegin{12});
    for (int i = 0; i < 3; ++i) {
        h.loop.Send(app::SprdStepNamed{12});
        Percent(12, 10);
        EXPECT_EQ(Bar(2), "[Step:step" + std::to_string(i) + "] (10%)");
    }
    EXPECT_EQ(h.router->SlotStepCounter(2), 3u);
    h.loop.Send(app::SprdBegin{12});
    EXPECT_EQ(h.router->SlotStepCounter(2), 0u);
}

TEST_F(MessageRouterTest, ProgressGoesToItsSlotsRowAndTimersShowElapsedTime) {
    h.loop.Send(app::SlotBar{3, app::BarValue::PERCENT, 55});
    EXPECT_EQ(Bar(3), "(0/0)(55%)");
    h.st.slots.startTime[4] = h.fx.clock.WallSeconds() - 61;
    h.loop.SetTimer(4, 1000);
    ASSERT_TRUE(h.RunUntil([&] { return h.st.slotList.CellText(4, app::COL_TIMER) == "00:01:02"; }));  // one tick later
    h.loop.KillTimer(4);
}

}  // namespace
}  // namespace quorvel::console
