#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <sstream>

#include "present/SlotListLayout.h"
#include "support/Golden.h"

namespace quorvel::app {
namespace {

std::string Widths(const ColumnWidths& widths) {
    std::string out;
    for (int w : widths) out += (out.empty() ? "" : " ") + std::to_string(w);
    return out;
}

// A tile of a one-row list: its state, bar position, time and counts, and the tile
// after it, which has no row.
std::string Tile(std::istringstream& in) {
    const char* const phases[] = {"IDLE", "FLASHING", "PASS", "FAIL", "INTERRUPTED"};
    const char* const states[] = {"ABSENT", "IDLE", "WAITING", "FLASHING", "PASS", "FAIL", "INTERRUPTED"};
    std::string phase, label, icon;
    SlotRow r;
    in >> phase >> label >> icon >> r.progress.position >> r.result.text;
    r.phase = static_cast<SlotPhase>(std::find(std::begin(phases), std::end(phases), phase) - std::begin(phases));
    r.result.visible = label == "label";
    r.cells[COL_DEVICE].icon = icon == "phone" ? kIconPhone : kIconSocket;
    r.cells[COL_TIMER].text = "00:02:41";
    r.passCount = 10;
    r.jobCount = 11;
    SlotListSnapshot list;
    list.rows.push_back(r);
    const auto tiles = BenchTiles(list);
    const BenchTile& t = tiles.at(0);
    return std::to_string(t.slot) + " " + states[static_cast<int>(t.state)] + " " + std::to_string(t.percent) + "% \"" +
           t.elapsed + "\" " + std::to_string(t.passCount) + "/" + std::to_string(t.jobCount) + ", then " +
           std::to_string(tiles.at(1).slot) + " " + states[static_cast<int>(tiles.at(1).state)] + " of " +
           std::to_string(tiles.size());
}

TEST(SlotListLayout, ColumnsAndTiles) {
    const auto run = [](const std::string& line) {
        std::istringstream in(line);
        std::string word;
        int client = 0, scroll = 0, last = 0;
        in >> word;
        if (word == "tile") return Tile(in);
        in >> client >> scroll >> last;
        if (word == "initial") return Widths(InitialColumnWidths(client));
        const ColumnWidths fitted = FittedColumnWidths(client, scroll, last);
        const int sum = std::accumulate(fitted.begin(), fitted.end(), 0);
        // Whether or not the scroll bar is shown, the columns fit beside it.
        return Widths(fitted) + (sum > client - scroll + 15 || sum > client ? " (too wide)" : "");
    };
    EXPECT_TRUE(test::MatchesCaseGolden("slot-list-layout/cases.txt", run));
}

}  // namespace
}  // namespace quorvel::app
