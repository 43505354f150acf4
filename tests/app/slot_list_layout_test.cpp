#include <gtest/gtest.h>

#include <numeric>

#include "app/SlotListLayout.h"

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

TEST(SlotListLayoutTest, TilesFollowTheRows) {
    SlotListSnapshot list;
    const auto row = [&list](bool progress, const std::string& result, int percent = 0) {
        SlotRow r;
        r.progress.visible = progress;
        r.progress.position = percent;
        r.result.visible = !result.empty();
        r.result.text = result;
        list.rows.push_back(r);
    };
    row(true, "PASS(10/11)", 100);
    row(true, "FAIL(9/12)", 37);
    row(true, "Ongoing", 130);  // a bar past its end still reads 100 %
    row(true, "OnSwith");
    row(false, "");       // hidden at the station's start
    row(true, "PASSED");  // not a verdict of the list
    list.rows[0].passCount = 10;
    list.rows[0].jobCount = 11;
    list.rows[0].cells[COL_TIMER].text = "00:02:41";
    const auto tiles = BenchTiles(list);
    const TileState want[] = {TileState::PASS,      TileState::FAIL, TileState::BUSY,
                              TileState::SWITCHING, TileState::IDLE, TileState::BUSY};
    for (std::size_t n = 0; n < tiles.size(); ++n) {
        SCOPED_TRACE(n);
        EXPECT_EQ(tiles[n].slot, static_cast<int>(n) + 1);
        EXPECT_EQ(tiles[n].state, n < std::size(want) ? want[n] : TileState::ABSENT);
    }
    EXPECT_EQ(tiles[2].percent, 100);
    EXPECT_EQ(tiles[0].elapsed, "00:02:41");
    EXPECT_EQ(tiles[0].passCount, 10u);
    EXPECT_EQ(tiles[0].jobCount, 11u);
}

}  // namespace
}  // namespace quorvel::app
