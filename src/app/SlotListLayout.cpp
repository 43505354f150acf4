#include "app/SlotListLayout.h"

#include <algorithm>

#include "app/Texts.h"

namespace quorvel::app {

namespace {
ColumnWidths Split(int w, int bindedWidth) {
    w = std::max(0, w);
    // Integer tenths: exactly 0.3 W etc. truncated, with no binary-fraction surprises.
    return {70, w * 3 / 10, w * 5 / 10, w / 10, w / 10, bindedWidth};
}

bool StartsWith(const std::string& text, const char* word) {
    const std::string prefix = std::string(word) + "(";
    return text.compare(0, prefix.size(), prefix) == 0;
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
        const std::string& result = row.result.visible ? row.result.text : std::string();
        if (StartsWith(result, texts::kResultPass)) {
            tile.state = TileState::PASS;
        } else if (StartsWith(result, texts::kResultFail)) {
            tile.state = TileState::FAIL;
        } else if (result == texts::kResultOnSwitch) {
            tile.state = TileState::SWITCHING;
        } else {
            tile.state = row.progress.visible ? TileState::BUSY : TileState::IDLE;
        }
    }
    return tiles;
}

}  // namespace quorvel::app
