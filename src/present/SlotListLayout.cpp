#include "present/SlotListLayout.h"

#include <algorithm>

namespace quorvel::app {

namespace {
ColumnWidths Split(int w, int bindedWidth) {
    w = std::max(0, w);
    // Integer tenths: exactly 0.3 W etc. truncated, with no binary-fraction surprises.
    return {70, w * 3 / 10, w * 5 / 10, w / 10, w / 10, bindedWidth};
}

}  // namespace

ColumnWidths InitialColumnWidths(int clientWidth) {
    return Split(clientWidth - 90, 20);
}

ColumnWidths FittedColumnWidths(int clientWidth, int scrollBarWidth, int bindedWidth) {
    return Split(clientWidth - scrollBarWidth - 75, bindedWidth);
}

std::array<BenchTile, kSlotCount> BenchTiles(const SlotListSnapshot& list) {
    std::array<BenchTile, kSlotCount> tiles;
    for (std::size_t n = 0; n < tiles.size(); ++n) {
        BenchTile& tile = tiles[n];
        tile.slot = static_cast<int>(n) + 1;
        if (n >= list.rows.size()) continue;
        const SlotRow& row = list.rows[n];
        tile.passCount = row.passCount;
        tile.jobCount = row.jobCount;
        tile.elapsed = row.cells[COL_TIMER].text;
        tile.status = row.progress.visible ? row.progress.text : std::string();
        tile.percent = std::clamp(row.progress.position, 0, 100);
        switch (row.phase) {
            case SlotPhase::FLASHING: tile.state = TileState::FLASHING; break;
            case SlotPhase::PASS: tile.state = TileState::PASS; break;
            case SlotPhase::FAIL: tile.state = TileState::FAIL; break;
            case SlotPhase::INTERRUPTED: tile.state = TileState::INTERRUPTED; break;
            case SlotPhase::IDLE: tile.state = TileState::IDLE; break;
        }
        // A verdict the row no longer shows (a new phone came, the station started again)
        // is over: the slot waits with its phone, or is idle without one.
        if (tile.state != TileState::FLASHING && (tile.state == TileState::IDLE || !row.result.visible)) {
            tile.state = row.cells[COL_DEVICE].icon == kIconPhone ? TileState::WAITING : TileState::IDLE;
            tile.elapsed.clear();
        }
        if (tile.state != TileState::FLASHING) tile.percent = 0;
    }
    return tiles;
}

}  // namespace quorvel::app
