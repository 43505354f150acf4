#include <gtest/gtest.h>

#include <numeric>

#include "present/SlotListLayout.h"

namespace quorvel::app {
namespace {

TEST(SlotListLayoutTest, ColumnsAtThreeScreenWidths) {
    const struct {
        int client;
        ColumnWidths fitted;
    } rows[] = {
        {800, {70, 212, 354, 70, 70, 20}},
        {1366, {70, 382, 637, 127, 127, 20}},
        {1600, {70, 452, 754, 150, 150, 20}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.client);
        const ColumnWidths fitted = FittedColumnWidths(row.client, 17, 20);
        EXPECT_EQ(fitted, row.fitted);
        // Whether or not the scroll bar is shown, the columns fit beside it.
        EXPECT_LE(std::accumulate(fitted.begin(), fitted.end(), 0), row.client - 17 + 15);
        EXPECT_LE(std::accumulate(fitted.begin(), fitted.end(), 0), row.client);
    }
    EXPECT_EQ(InitialColumnWidths(900), (ColumnWidths{70, 243, 405, 81, 81, 20}));
    EXPECT_EQ(FittedColumnWidths(50, 17, 33), (ColumnWidths{70, 0, 0, 0, 0, 33}));  // never negative
}

// A tile's state is the row's phase and whether a phone is on the socket; the texts
// and the bar never decide it, so an idle slot's empty bar never reads as a flash.
TEST(SlotListLayoutTest, TilesFollowTheRows) {
    SlotListSnapshot list;
    const auto row = [&list](SlotPhase phase, bool label, int icon, int percent = 0, const char* result = "") {
        SlotRow r;
        r.phase = phase;
        r.result.visible = label;
        r.result.text = result;
        r.progress.position = percent;
        r.cells[COL_DEVICE].icon = icon;
        r.cells[COL_TIMER].text = "00:02:41";
        list.rows.push_back(r);
    };
    row(SlotPhase::PASS, true, kIconPhone, 100, "PASS(10/11)");
    row(SlotPhase::FAIL, true, kIconSocket, 37, "FAIL(9/12)");   // pulled out after its verdict
    row(SlotPhase::FLASHING, true, kIconPhone, 130, "OnSwith");  // a bar past its end still reads 100 %
    row(SlotPhase::INTERRUPTED, true, kIconPhone, 50, "FAIL(0/1)");
    row(SlotPhase::IDLE, true, kIconPhone, 0, "PASS(1/1)");  // a phone that has not begun: its bar is no flash
    row(SlotPhase::IDLE, false, kIconSocket);                // shown at 0 % before, as a bound row came
    row(SlotPhase::PASS, false, kIconPhone, 100);            // a new phone came after the verdict
    row(SlotPhase::FAIL, false, kIconSocket, 37);            // the station started again
    list.rows[0].passCount = 10;
    list.rows[0].jobCount = 11;
    const auto tiles = BenchTiles(list);
    const TileState want[] = {TileState::PASS,    TileState::FAIL, TileState::FLASHING, TileState::INTERRUPTED,
                              TileState::WAITING, TileState::IDLE, TileState::WAITING,  TileState::IDLE};
    for (std::size_t n = 0; n < tiles.size(); ++n) {
        SCOPED_TRACE(n);
        EXPECT_EQ(tiles[n].slot, static_cast<int>(n) + 1);
        EXPECT_EQ(tiles[n].state, n < std::size(want) ? want[n] : TileState::ABSENT);
        if (tiles[n].state != TileState::FLASHING) {
            EXPECT_EQ(tiles[n].percent, 0);
        }
    }
    EXPECT_EQ(tiles[2].percent, 100);
    EXPECT_EQ(tiles[0].elapsed, "00:02:41");
    EXPECT_EQ(tiles[5].elapsed, "");  // an idle slot shows no job's time
    EXPECT_EQ(tiles[0].passCount, 10u);
    EXPECT_EQ(tiles[0].jobCount, 11u);
}

}  // namespace
}  // namespace quorvel::app
