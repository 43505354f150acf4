// A slot's row as the engines' messages change it, played from
// tests/golden/slot-display/rows.txt: each line a message or an operator's doing, and
// under it what changed on the row and in the slot's state.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <sstream>

#include "slots/SlotDisplay.h"
#include "station/Messages.h"
#include "support/Golden.h"
#include "support/StationFixture.h"

namespace quorvel::engine {
namespace {

std::string Hex(app::Rgb colour) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%06x", colour);
    return text;
}

class RowPlayer {
public:
    RowPlayer() {
        fx.station->language.SetLanguageId(1034);  // English
        for (int i = 0; i < 4; ++i) fx.station->slotList.InsertRow("0" + std::to_string(i + 1));
        seen_ = Look();
    }

    // Does what the line says, and tells what changed: "name: value", a line each.
    std::string Play(const std::string& line) {
        std::istringstream words(line);
        std::string verb, rest;
        words >> verb;
        std::getline(words >> std::ws, rest);
        const auto number = [&] { return static_cast<std::uint32_t>(std::stoul(rest)); };
        auto& st = *fx.station;
        if (verb == "row")
            row_ = static_cast<int>(number());
        else if (verb == "status")
            display.Show(app::SlotStatus{row_, rest});
        else if (verb == "percent")
            display.Show(app::SlotBar{row_, app::BarValue::PERCENT, number()});
        else if (verb == "done")
            display.Show(app::SlotBar{row_, app::BarValue::DONE, number()});
        else if (verb == "total")
            display.Show(app::SlotBar{row_, app::BarValue::TOTAL, number()});
        else if (verb == "verdict")
            display.Show(app::SlotVerdict{row_, rest == "pass"});
        else if (verb == "account") {
            const auto bar = rest.find(" | ");
            display.Show(app::SlotAccount{row_, rest.substr(0, bar), rest.substr(bar + 3)});
        } else if (verb == "da-switched")
            display.Show(app::SlotDaSwitched{row_});
        else if (verb == "language")
            st.language.SetLanguageId(static_cast<int>(number()));
        else if (verb == "busy")
            st.bindings.SetState(row_, app::BindState::Busy);
        else if (verb == "sprd-step") {  // "N name": the step's number and the name the engine gave it
            const auto space = rest.find(' ');
            display.SetStepName(row_, rest.substr(space + 1));
            display.ShowStep(row_, static_cast<app::SprdStep>(std::stoi(rest.substr(0, space))));
        } else if (verb == "sprd-progress")
            display.ShowSprdProgress(row_, number());
        else if (verb == "sprd-switched")
            display.SprdFinished(row_, app::SprdResult{2, "", true});
        else if (verb == "sprd-failed")
            display.SprdFinished(row_, app::SprdResult{2, rest, false});
        else if (verb == "sprd-phase")
            display.SetSprdPhase(static_cast<int>(number()));
        else if (verb == "begin")
            display.BeginJob(row_);
        else if (verb == "interrupted")
            display.EndJob(row_, display.Outcome(), true);
        else if (verb == "show-bar")
            display.ShowCell(row_, app::COL_PROGRESS);
        else if (verb == "megabytes")
            st.validatedMegabytes = number();
        else if (verb == "started")
            st.slots.startTime[row_] = st.clock.WallSeconds() - number();  // seconds ago
        else if (verb == "tick")
            ShowSlotElapsed(st, row_);
        else
            return "unknown line";
        std::string changed;
        const auto now = Look();
        for (const auto& [name, value] : now)
            if (seen_[name] != value) changed += name + ": " + value + "\n";
        seen_ = now;
        return changed;
    }

private:
    std::map<std::string, std::string> Look() {
        const auto& st = *fx.station;
        const app::SlotRow& r = st.slotList.Row(row_);
        const SlotState s = display.State();
        const SlotOutcome o = display.Outcome();
        static const char* const kPhases[] = {"IDLE", "FLASHING", "PASS", "FAIL", "INTERRUPTED"};
        static const char* const kStages[] = {"IDLE", "FLASHING", "SWITCHING", "PASS", "FAIL", "INTERRUPTED"};
        static const std::string kResults[] = {"none", "passed", "failed"};
        const std::string p = "row " + std::to_string(row_) + " ";
        const auto quoted = [](const std::string& text) { return "\"" + text + "\""; };
        return {{p + "bar", quoted(r.progress.text)},
                {p + "bar at", std::to_string(r.progress.position)},
                {p + "bar colours", Hex(r.progress.barColourFrom) + " text " + Hex(r.progress.textColour) + " over " +
                                        Hex(r.progress.backTextColour)},
                {p + "result", quoted(r.result.text) + " in " + Hex(r.result.textColour)},
                {p + "phase", kPhases[static_cast<int>(r.phase)]},
                {p + "counts", std::to_string(r.passCount) + "/" + std::to_string(r.jobCount)},
                {p + "timer", st.slotList.CellText(row_, app::COL_TIMER)},
                {p + "binding", app::BindStateName(st.bindings.State(row_))},
                {"stage", kStages[static_cast<int>(s.stage)]},
                {"jobs", std::to_string(s.jobCount)},
                {"da switched", s.daSwitched ? "yes" : "no"},
                {"outcome", kResults[static_cast<int>(o.result)] + (o.step.empty() ? "" : " in " + quoted(o.step)) +
                                (o.error.empty() ? "" : ": " + o.error)}};
    }

    test::StationFixture fx;
    SlotDisplay display{*fx.station};
    int row_ = 1;
    std::map<std::string, std::string> seen_;
};

TEST(SlotDisplay, RowsFollowTheEnginesMessages) {
    auto player = std::make_unique<RowPlayer>();
    EXPECT_TRUE(test::MatchesCaseGolden("slot-display/rows.txt", [&](const std::string& line) {
        if (line != "fresh") return player->Play(line);
        player = std::make_unique<RowPlayer>();  // a station and slot of its own
        return std::string();
    }));
}

}  // namespace
}  // namespace quorvel::engine
