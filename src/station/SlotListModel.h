#pragma once
// The slot list as a thread-safe view model: rows of six cells (text, colour,
// icon), and per row a progress bar and a result label. Workers and the station
// thread write it; the window renders snapshots; ResultText reads it.

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace quorvel::app {

using Rgb = std::uint32_t;  // 0x00RRGGBB
constexpr Rgb MakeRgb(int r, int g, int b) {
    return (static_cast<Rgb>(r) << 16) | (static_cast<Rgb>(g) << 8) | static_cast<Rgb>(b);
}
inline constexpr Rgb kBlack = 0;
inline constexpr Rgb kWhite = 0xFFFFFF;
inline constexpr int kNoIcon = -1;
inline constexpr int kIconSocket = 1;  // a bound socket without a phone
inline constexpr int kIconPhone = 2;   // a phone is on the socket

enum SlotColumn : int {
    COL_NUMBER = 0,
    COL_DEVICE = 1,
    COL_PROGRESS = 2,
    COL_TIMER = 3,
    COL_RESULT = 4,
    COL_BINDED = 5
};
inline constexpr int kSlotColumnCount = 6;

struct SlotCell {
    std::string text;
    Rgb colour = kBlack;
    int icon = kNoIcon;  // index into the list's image list
};

struct SlotProgress {
    int position = 0;  // 0..100
    std::string text;
    Rgb textColour = kBlack;      // over the filled part of the bar
    Rgb backTextColour = kBlack;  // over the rest
    Rgb barColourFrom = MakeRgb(0, 160, 0), barColourTo = MakeRgb(0, 220, 0);
    bool visible = true;
};

struct SlotResult {
    std::string text;
    Rgb textColour = kBlack;
    Rgb backColour = MakeRgb(247, 255, 252);
    bool visible = true;
};

// Where the slot's job stands, as a value the views render (never read back from a text).
// A verdict holds until the next job begins; whether it is still on show is the result
// label's visibility.
enum class SlotPhase { IDLE, FLASHING, PASS, FAIL, INTERRUPTED };

struct SlotRow {
    std::array<SlotCell, kSlotColumnCount> cells;
    SlotProgress progress;
    SlotResult result;
    std::uint32_t passCount = 0, jobCount = 0;  // the slot's jobs since start-up
    SlotPhase phase = SlotPhase::IDLE;
};

struct SlotColumnHeader {
    std::string title;
    enum Align { LEFT, CENTRE } align = LEFT;
    int width = 0;
};

struct SlotListSnapshot {
    std::uint64_t version = 0;
    std::vector<SlotColumnHeader> columns;
    std::vector<SlotRow> rows;
};

class SlotListModel {
public:
    void SetColumns(std::vector<SlotColumnHeader> columns);
    void SetColumnWidth(int column, int width);

    int RowCount() const;
    // Appends a row; returns its index.
    int InsertRow(const std::string& numberText);
    // Appends rows until `row` exists, each made by `make(index, row)` under the lock (it
    // must not call back into the model), in one step, so threads filling at once never
    // interleave. Returns the index of the first row made (`row` + 1 when none was).
    int FillRowsTo(int row, const std::function<void(int, SlotRow&)>& make);
    void DeleteRow(int row);  // later rows move up
    void DeleteAllRows();

    // Row and column out of range are ignored (or give empty results).
    void SetCellText(int row, int column, const std::string& text);
    void SetCellColour(int row, int column, Rgb colour);
    void SetCellIcon(int row, int column, int icon);
    void SetProgress(int row, const SlotProgress& progress);
    void SetResult(int row, const SlotResult& result);
    // Edits a row in place under the lock; `edit` must not call back into the model.
    void EditRow(int row, const std::function<void(SlotRow&)>& edit);

    std::string CellText(int row, int column) const;
    SlotRow Row(int row) const;
    // The result label's text, as ResultText reads it.
    std::string ResultText(int row) const;
    SlotListSnapshot Snapshot() const;

    // Called after every change, on the changing thread, without the model's lock held;
    // must not change the model. Once SetObserver returns, the old observer never runs again.
    void SetObserver(std::function<void()> observer);

private:
    template <class F>
    void Change(F f);

    mutable std::mutex mutex_;
    SlotListSnapshot state_;
    std::mutex observerMutex_;  // guards observer_ and its calls
    std::function<void()> observer_;
};

}  // namespace quorvel::app
