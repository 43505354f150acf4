#include <gtest/gtest.h>

#include <sstream>

#include "slots/EngineHarness.h"
#include "support/Golden.h"

namespace quorvel::console {
namespace {

// Steps named by number, so the routing's counter shows in the names it asks for.
class NamingSprd final : public engine::SprdEngine {
public:
    void SetSPRDParameters(int, unsigned long, std::string, std::vector<app::DlFileInfo>, std::string) override {}
    int StartWork() override { return 0; }
    int StartOnePortWork(unsigned long, int) override { return 0; }
    int StopOnePortWork(unsigned long, int) override { return 0; }
    std::string GetStepName(int step) override { return "step" + std::to_string(step); }
};

// One message or question a line of the golden; the answer is what changed in the rows.
TEST(MessageRouter, EngineMessagesReachTheRowOfTheirPort) {
    test::EngineHarness h{8, {.sprd = [] { return std::make_unique<NamingSprd>(); }}};
    const auto play = [&](const std::string& line) {
        std::istringstream in(line);
        std::string word, text;
        long n = 0, value = 0;
        in >> word >> n;
        const auto port = static_cast<unsigned long>(n);
        const auto rows = [&] {
            std::vector<std::string> texts;
            for (int r = 0; r < h.st.slotList.RowCount(); ++r) texts.push_back(h.Result(r) + " | " + h.Bar(r));
            return texts;
        };
        const auto version = h.st.slotList.Snapshot().version;
        const auto before = rows();
        if (word == "com") {
            std::getline(in >> std::ws, text);
            h.st.bindings.SetComName(static_cast<int>(n), text);
            return std::string();
        }
        in >> value;
        if (word == "slot-of") return "slot " + std::to_string(h.router->SlotOfPort(static_cast<int>(n)));
        if (word == "counter") return "counter " + std::to_string(h.router->SlotStepCounter(static_cast<int>(n)));
        if (word == "step") h.loop.Send(app::SprdStepEntered{port, static_cast<app::SprdStep>(value)});
        if (word == "percent") h.loop.Send(app::SprdProgress{port, static_cast<std::uint32_t>(value)});
        if (word == "named") h.loop.Send(app::SprdStepNamed{port});
        if (word == "begin") h.loop.Send(app::SprdBegin{port});
        if (word == "pass") h.loop.Send(app::SprdResult{port, "", false});
        if (word == "row-bar") h.loop.Send(app::SlotBar{static_cast<int>(n), app::BarValue::PERCENT, 50});
        if (word == "row-status") h.loop.Send(app::SlotStatus{static_cast<int>(n), "nowhere"});
        if (word == "timer") {
            h.st.slots.startTime[n] = h.fx.clock.WallSeconds() - value;
            h.loop.SetTimer(static_cast<int>(n), 1000);
            const auto elapsed = [&] { return h.st.slotList.CellText(static_cast<int>(n), app::COL_TIMER); };
            h.RunUntil([&] { return !elapsed().empty(); });  // one tick later
            h.loop.KillTimer(static_cast<int>(n));
            return "timer " + elapsed();
        }
        if (h.st.slotList.Snapshot().version == version) return std::string("unchanged");
        const auto after = rows();
        std::string changed;
        for (std::size_t r = 0; r < after.size(); ++r)
            if (r >= before.size() || after[r] != before[r])
                changed += (changed.empty() ? "" : "\n") + ("row " + std::to_string(r) + ": " + after[r]);
        return changed;
    };
    EXPECT_TRUE(test::MatchesCaseGolden("message-router/routing.txt", play));
}

}  // namespace
}  // namespace quorvel::console
