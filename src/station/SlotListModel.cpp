#include "station/SlotListModel.h"

namespace quorvel::app {

namespace {
bool Valid(const SlotListSnapshot& s, int row, int column = 0) {
    return row >= 0 && row < static_cast<int>(s.rows.size()) && column >= 0 && column < kSlotColumnCount;
}
}  // namespace

template <class F>
void SlotListModel::Change(F f) {
    {
        std::lock_guard g(mutex_);
        if (!f(state_)) return;
        ++state_.version;
    }
    // Under its own lock, so that once SetObserver returns no old observer still runs.
    std::lock_guard g(observerMutex_);
    if (observer_) observer_();
}

void SlotListModel::SetColumns(std::vector<SlotColumnHeader> columns) {
    Change([&](SlotListSnapshot& s) {
        s.columns = std::move(columns);
        return true;
    });
}

void SlotListModel::SetColumnWidth(int column, int width) {
    Change([&](SlotListSnapshot& s) {
        if (column < 0 || column >= static_cast<int>(s.columns.size())) return false;
        s.columns[static_cast<std::size_t>(column)].width = width;
        return true;
    });
}

int SlotListModel::RowCount() const {
    std::lock_guard g(mutex_);
    return static_cast<int>(state_.rows.size());
}

int SlotListModel::InsertRow(const std::string& numberText) {
    int index = 0;
    Change([&](SlotListSnapshot& s) {
        s.rows.emplace_back();
        s.rows.back().cells[COL_NUMBER].text = numberText;
        index = static_cast<int>(s.rows.size()) - 1;
        return true;
    });
    return index;
}

int SlotListModel::FillRowsTo(int row, const std::function<void(int, SlotRow&)>& make) {
    int first = row + 1;
    Change([&](SlotListSnapshot& s) {
        const int count = static_cast<int>(s.rows.size());
        if (count > row) return false;
        first = count;
        for (int i = count; i <= row; ++i) make(i, s.rows.emplace_back());
        return true;
    });
    return first;
}

void SlotListModel::DeleteRow(int row) {
    Change([&](SlotListSnapshot& s) {
        if (!Valid(s, row)) return false;
        s.rows.erase(s.rows.begin() + row);
        return true;
    });
}

void SlotListModel::DeleteAllRows() {
    Change([&](SlotListSnapshot& s) {
        s.rows.clear();
        return true;
    });
}

void SlotListModel::SetCellText(int row, int column, const std::string& text) {
    Change([&](SlotListSnapshot& s) {
        if (!Valid(s, row, column)) return false;
        s.rows[static_cast<std::size_t>(row)].cells[static_cast<std::size_t>(column)].text = text;
        return true;
    });
}

void SlotListModel::SetCellColour(int row, int column, Rgb colour) {
    Change([&](SlotListSnapshot& s) {
        if (!Valid(s, row, column)) return false;
        s.rows[static_cast<std::size_t>(row)].cells[static_cast<std::size_t>(column)].colour = colour;
        return true;
    });
}

void SlotListModel::SetCellIcon(int row, int column, int icon) {
    Change([&](SlotListSnapshot& s) {
        if (!Valid(s, row, column)) return false;
        s.rows[static_cast<std::size_t>(row)].cells[static_cast<std::size_t>(column)].icon = icon;
        return true;
    });
}

void SlotListModel::SetProgress(int row, const SlotProgress& progress) {
    Change([&](SlotListSnapshot& s) {
        if (!Valid(s, row)) return false;
        s.rows[static_cast<std::size_t>(row)].progress = progress;
        return true;
    });
}

void SlotListModel::SetResult(int row, const SlotResult& result) {
    Change([&](SlotListSnapshot& s) {
        if (!Valid(s, row)) return false;
        s.rows[static_cast<std::size_t>(row)].result = result;
        return true;
    });
}

void SlotListModel::EditRow(int row, const std::function<void(SlotRow&)>& edit) {
    Change([&](SlotListSnapshot& s) {
        if (!Valid(s, row)) return false;
        edit(s.rows[static_cast<std::size_t>(row)]);
        return true;
    });
}

std::string SlotListModel::CellText(int row, int column) const {
    std::lock_guard g(mutex_);
    return Valid(state_, row, column)
               ? state_.rows[static_cast<std::size_t>(row)].cells[static_cast<std::size_t>(column)].text
               : std::string();
}

SlotRow SlotListModel::Row(int row) const {
    std::lock_guard g(mutex_);
    return Valid(state_, row) ? state_.rows[static_cast<std::size_t>(row)] : SlotRow{};
}

std::string SlotListModel::ResultText(int row) const {
    std::lock_guard g(mutex_);
    return Valid(state_, row) ? state_.rows[static_cast<std::size_t>(row)].result.text : std::string();
}

SlotListSnapshot SlotListModel::Snapshot() const {
    std::lock_guard g(mutex_);
    return state_;
}

void SlotListModel::SetObserver(std::function<void()> observer) {
    std::lock_guard g(observerMutex_);
    observer_ = std::move(observer);
}

}  // namespace quorvel::app
