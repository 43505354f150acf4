#pragma once
// The slot list's geometry and the bench view's tiles, apart from any toolkit, so
// that both can be checked without a screen. Pure functions; any thread.

#include <array>
#include <cstdint>
#include <string>

#include "station/BindingTable.h"
#include "station/SlotListModel.h"

namespace quorvel::app {

using ColumnWidths = std::array<int, kSlotColumnCount>;

// The widths the list is created with: W = client width - 90, then 70, 0.3 W, 0.5 W,
// 0.1 W, 0.1 W and 20 for the bind state. Fractions are truncated toward zero.
ColumnWidths InitialColumnWidths(int clientWidth);

// The widths given whenever the list's client width has changed: W = client width -
// the scroll bar's width - 75, then 70, 0.3 W, 0.5 W, 0.1 W, 0.1 W; the bind state
// column keeps `bindedWidth`. The scroll bar is subtracted even when it is not shown,
// so the columns fit whether or not sixteen rows need one. A width never goes below 0.
ColumnWidths FittedColumnWidths(int clientWidth, int scrollBarWidth, int bindedWidth);

// One bench tile per slot, made from the slot list's rows (row n is slot n + 1). Its
// state comes from the row's phase, never from a text: a verdict while its label shows,
// a flash while the job runs; otherwise a phone on the socket waits, and without one
// the slot is idle. A slot without a row is ABSENT.
enum class TileState { ABSENT, IDLE, WAITING, FLASHING, PASS, FAIL, INTERRUPTED };

struct BenchTile {
    int slot = 0;  // 1..16, as the list numbers its rows
    TileState state = TileState::ABSENT;
    int percent = 0;      // the bar's position while FLASHING
    std::string status;   // the bar's text
    std::string elapsed;  // the timer column
    std::uint32_t passCount = 0, jobCount = 0;
};

std::array<BenchTile, kSlotCount> BenchTiles(const SlotListSnapshot& list);

}  // namespace quorvel::app
