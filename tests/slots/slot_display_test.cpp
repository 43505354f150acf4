#include <gtest/gtest.h>

#include "slots/SlotDisplay.h"
#include "station/Messages.h"
#include "station/Texts.h"
#include "support/StationFixture.h"

namespace quorvel::engine {
namespace {

constexpr auto kPercent = app::BarValue::PERCENT;
constexpr auto kDone = app::BarValue::DONE;
constexpr auto kTotal = app::BarValue::TOTAL;

class SlotDisplayTest : public ::testing::Test {
protected:
    void SetUp() override {
        fx.station->language.SetLanguageId(1034);  // English
        for (int i = 0; i < 4; ++i) fx.station->slotList.InsertRow("0" + std::to_string(i + 1));
    }
    void Status(const char* text, int row = 1) { display.Show(app::SlotStatus{row, text}); }
    void Value(app::BarValue what, std::uint32_t v, int row = 1) { display.Show(app::SlotBar{row, what, v}); }
    void Verdict(bool passed, int row = 1) { display.Show(app::SlotVerdict{row, passed}); }
    std::string Bar(int row = 1) const { return fx.station->slotList.Row(row).progress.text; }
    app::SlotResult Result(int row = 1) const { return fx.station->slotList.Row(row).result; }

    test::StationFixture fx;
    SlotDisplay display{*fx.station};
};

// Counts below one hundred, megabytes from one hundred, percent only without a total.
TEST_F(SlotDisplayTest, BarTextComposesStatusCountsAndPercent) {
    Value(kPercent, 40);
    Status("Formating...");
    EXPECT_EQ(Bar(), "Formating...(40%)");
    Status("Memory Testing!...");
    EXPECT_EQ(Bar(), "Memory Testing!...");
    Status("50% done");  // shown as it is: the bar does not format again
    EXPECT_EQ(Bar(), "50% done(40%)");
    Status("Downloading...");
    Value(kDone, 3145728);
    Value(kTotal, 10485760);
    Value(kPercent, 30);
    EXPECT_EQ(Bar(), "Downloading...(3.00/10.00M)(30%)");
    EXPECT_EQ(fx.station->slotList.Row(1).progress.position, 30);
    Value(kDone, 5);
    Value(kTotal, 99);
    EXPECT_EQ(Bar(), "Downloading...(5/99)(30%)");
    Value(kTotal, 100);
    EXPECT_EQ(Bar(), "Downloading...(0.00/0.00M)(30%)");
}

TEST_F(SlotDisplayTest, SpeedShownOnlyBetweenZeroAndTwentyMegabytesPerSecondAndElapsedTime) {
    auto& st = *fx.station;
    st.validatedMegabytes = 100.0;
    Value(kTotal, 0xFFFFFFFFu);
    Value(kPercent, 100);
    // 100 MB over (elapsed - 10) s: 5 MB/s, 25 MB/s (not shown), negative (not shown).
    for (auto [elapsed, bar] :
         {std::pair{30, "Download Completely!(100%)(5.00 MB/s)"}, std::pair{14, "Download Completely!(100%)"},
          std::pair{5, "Download Completely!(100%)"}}) {
        st.slots.startTime[1] = st.clock.WallSeconds() - elapsed;
        Status("Download Completely!");
        EXPECT_EQ(Bar(), bar) << elapsed << " s";
    }
    st.slots.startTime[3] = st.clock.WallSeconds() - (2 * 3600 + 5 * 60 + 9);
    ShowSlotElapsed(st, 3);
    EXPECT_EQ(st.slotList.CellText(3, app::COL_TIMER), "02:05:09");
}

TEST_F(SlotDisplayTest, PassAfterKnownTotalSwitchesToPercentFormAndCounts) {
    const auto barTextColours = [&] {
        const auto p = fx.station->slotList.Row(1).progress;
        return std::pair{p.textColour, p.backTextColour};
    };
    display.ShowCell(1, app::COL_PROGRESS);
    EXPECT_EQ(barTextColours(), std::pair(app::kWhite, app::kBlack));  // over the blue bar, over the rest
    Status("Downloading...");
    Value(kDone, 1 << 20);
    Value(kTotal, 2 << 20);
    Value(kPercent, 50);
    Verdict(true);
    EXPECT_EQ(Bar(), "Downloading...(100%)");
    EXPECT_EQ(Result().text, "PASS(1/1)");
    EXPECT_EQ(Result().textColour, kColourDarkGreen);
    EXPECT_EQ(fx.station->slotList.Row(1).progress.barColourFrom, kColourGreen);
    EXPECT_EQ(barTextColours(), std::pair(app::kBlack, app::kBlack));
    Verdict(false);
    EXPECT_EQ(Result().text, "FAIL(1/2)");
    EXPECT_EQ(Result().textColour, kColourRed);
    EXPECT_EQ(display.State().jobCount, 2u);
    EXPECT_EQ(fx.station->slotList.Row(1).passCount, 1u);  // the counts the bench tiles show
    EXPECT_EQ(fx.station->slotList.Row(1).jobCount, 2u);
}

// The binding state follows the engine's DA-switch report, never a status's words.
TEST_F(SlotDisplayTest, DaSwitchSetsBindStateAndStatusTextsOnlyColour) {
    auto& st = *fx.station;
    st.bindings.SetState(1, app::BindState::Busy);
    st.language.SetLanguageId(1033);  // Chinese chosen
    Status("Switch DA Port Success...");
    Status("端口切换完成...");
    EXPECT_EQ(st.bindings.State(1), app::BindState::Busy);
    display.Show(app::SlotDaSwitched{1});
    EXPECT_EQ(st.bindings.State(1), app::BindState::DaBinded);
    EXPECT_TRUE(display.State().daSwitched);
    st.language.SetLanguageId(1034);
    Status("Bind Index and Port Success...");
    EXPECT_EQ(st.slotList.Row(1).progress.barColourFrom, kColourPurple);
}

TEST_F(SlotDisplayTest, SprdStepsProgressAndFinish) {
    display.SetStepName(2, "Downloading...");
    display.ShowStep(2, app::SprdStep::DOWNLOADING);
    display.ShowSprdProgress(2, 42);
    EXPECT_EQ(Bar(2), "[Step:Downloading...] Downloading...(42%)");
    EXPECT_EQ(fx.station->slotList.Row(2).progress.position, 42);

    const auto finish = [&] { display.SprdFinished(2, app::SprdResult{2, "", true}); };
    finish();
    EXPECT_EQ(Result(2).text, "OnSwith");
    EXPECT_EQ(Bar(2), "Enumerating port");
    EXPECT_EQ(display.Stage(), SlotStage::SWITCHING);  // what the first phase waits for
    EXPECT_EQ(display.State().jobCount, 0u);

    display.SetSprdPhase(1);  // phase 2: a re-enumerate value still counts as a pass
    finish();
    EXPECT_EQ(Result(2).text, "PASS(1/1)");
    EXPECT_EQ(Bar(2), "Passed");
    EXPECT_EQ(display.Stage(), SlotStage::PASS);

    display.SprdFinished(2, app::SprdResult{2, "Connecting failed", false});
    EXPECT_EQ(Result(2).text, "FAIL(1/2)");
    EXPECT_EQ(Bar(2), "Failed: Connecting failed");
    EXPECT_EQ(display.Stage(), SlotStage::FAIL);
}

// The outcome comes from what the engines tell, never from the row's texts: the MTK
// engines' account before their verdict, or without one their last status; the SPRD
// result's error with the step it came in. The worker's last word marks a job cut short.
TEST_F(SlotDisplayTest, OutcomeIsTheEnginesAccount) {
    using R = SlotOutcome::Result;
    const auto tell = [&](const std::string& step, const std::string& error) {
        display.Show(app::SlotAccount{1, step, error});
    };
    const auto phase = [&](int row) { return fx.station->slotList.Row(row).phase; };
    display.BeginJob(1);
    EXPECT_EQ(phase(1), app::SlotPhase::FLASHING);
    Status("Downloading...");
    Value(kPercent, 50);
    Status("Download failed!");
    const std::string bar = Bar();
    tell("Downloading", "write error at 50 %");
    EXPECT_EQ(Bar(), bar);  // the account is not part of the bar
    Verdict(false);
    EXPECT_EQ(display.Outcome(), (SlotOutcome{R::FAILED, "Downloading", "write error at 50 %"}));
    EXPECT_EQ(phase(1), app::SlotPhase::FAIL);

    display.BeginJob(1);
    EXPECT_EQ(display.Outcome(), SlotOutcome{});
    Status("Connecting...");
    Verdict(false);
    EXPECT_EQ(display.Outcome(), (SlotOutcome{R::FAILED, "Connecting...", ""}));
    display.EndJob(1, display.Outcome(), true);
    EXPECT_EQ(phase(1), app::SlotPhase::INTERRUPTED);

    display.BeginJob(2);
    display.SetStepName(2, "Erasing flash");
    display.ShowStep(2, app::SprdStep::ERASING);
    display.SprdFinished(2, app::SprdResult{2, "Erasing flash failed", false});
    EXPECT_EQ(display.Outcome(), (SlotOutcome{R::FAILED, "Erasing flash", "Erasing flash failed"}));
    EXPECT_EQ(phase(2), app::SlotPhase::FAIL);
}

}  // namespace
}  // namespace quorvel::engine
