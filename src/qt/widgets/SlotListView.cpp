#include "qt/widgets/SlotListView.h"

#include <QEvent>
#include <QHeaderView>
#include <QLinearGradient>
#include <QPainter>
#include <algorithm>

#include "present/SlotListLayout.h"
#include "qt/widgets/SlotIcons.h"

namespace quorvel::widgets {

namespace {
QColor ToQColor(app::Rgb c) {
    return QColor((c >> 16) & 0xFF, (c >> 8) & 0xFF, c & 0xFF);
}
}  // namespace

namespace {
bool SameColumns(const app::SlotListSnapshot& a, const app::SlotListSnapshot& b) {
    return std::equal(a.columns.begin(), a.columns.end(), b.columns.begin(), b.columns.end(),
                      [](const auto& x, const auto& y) { return x.title == y.title && x.align == y.align; });
}

// The columns of a row whose look differs between two snapshots.
std::vector<int> ChangedColumns(const app::SlotRow& a, const app::SlotRow& b) {
    std::vector<int> changed;
    for (int c = 0; c < app::kSlotColumnCount; ++c) {
        const auto& x = a.cells[static_cast<std::size_t>(c)];
        const auto& y = b.cells[static_cast<std::size_t>(c)];
        bool same = x.text == y.text && x.colour == y.colour && x.icon == y.icon;
        if (c == app::COL_PROGRESS) {
            const auto& p = a.progress;
            const auto& q = b.progress;
            same = same && p.position == q.position && p.text == q.text && p.textColour == q.textColour &&
                   p.backTextColour == q.backTextColour && p.barColourFrom == q.barColourFrom &&
                   p.barColourTo == q.barColourTo && p.visible == q.visible;
        }
        if (c == app::COL_RESULT) {
            same = same && a.result.text == b.result.text && a.result.textColour == b.result.textColour &&
                   a.result.backColour == b.result.backColour && a.result.visible == b.result.visible;
        }
        if (!same) changed.push_back(c);
    }
    return changed;
}
}  // namespace

void SlotTableModel::Show(app::SlotListSnapshot snapshot) {
    const bool reshaped =
        snapshot.rows.size() != snapshot_.rows.size() || snapshot.columns.size() != snapshot_.columns.size();
    const bool retitled = reshaped || !SameColumns(snapshot, snapshot_);
    if (reshaped) {
        beginResetModel();
        snapshot_ = std::move(snapshot);
        endResetModel();
        return;
    }
    // Only cells that changed are announced, so only they are painted again: while
    // sixteen phones flash, that is mostly the bars.
    std::vector<std::pair<int, int>> changed;
    for (std::size_t r = 0; r < snapshot.rows.size(); ++r)
        for (const int c : ChangedColumns(snapshot.rows[r], snapshot_.rows[r])) changed.emplace_back(r, c);
    snapshot_ = std::move(snapshot);
    for (const auto& [r, c] : changed) Q_EMIT dataChanged(index(r, c), index(r, c));
    if (retitled) Q_EMIT headerDataChanged(Qt::Horizontal, 0, columnCount() - 1);
}

int SlotTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(snapshot_.rows.size());
}

int SlotTableModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : app::kSlotColumnCount;
}

QVariant SlotTableModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount()) return {};
    const auto& cell =
        snapshot_.rows[static_cast<std::size_t>(index.row())].cells[static_cast<std::size_t>(index.column())];
    switch (role) {
        case Qt::DisplayRole: return QString::fromUtf8(cell.text.c_str());
        case Qt::ForegroundRole: return ToQColor(cell.colour);
        case Qt::DecorationRole: {
            const QPixmap icon = SlotIcon(cell.icon);
            return icon.isNull() ? QVariant() : QVariant(icon);
        }
        case Qt::TextAlignmentRole: {
            const bool centre =
                index.column() < static_cast<int>(snapshot_.columns.size()) &&
                snapshot_.columns[static_cast<std::size_t>(index.column())].align == app::SlotColumnHeader::CENTRE;
            return QVariant::fromValue(Qt::AlignVCenter | (centre ? Qt::AlignHCenter : Qt::AlignLeft));
        }
        default: return {};
    }
}

QVariant SlotTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    if (section < 0 || section >= static_cast<int>(snapshot_.columns.size())) return {};
    return QString::fromUtf8(snapshot_.columns[static_cast<std::size_t>(section)].title.c_str());
}

void SlotCellDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const {
    const auto& rows = model_.Current().rows;
    if (!index.isValid() || index.row() >= static_cast<int>(rows.size())) return;
    const app::SlotRow& row = rows[static_cast<std::size_t>(index.row())];
    if (index.column() == app::COL_PROGRESS && row.progress.visible) {
        const QRect r = option.rect.adjusted(2, 2, -2, -2);
        painter->save();
        painter->fillRect(r, QColor(235, 235, 235));
        const int filled = r.width() * std::clamp(row.progress.position, 0, 100) / 100;
        const QRect done(r.left(), r.top(), filled, r.height());
        if (filled > 0) {
            QLinearGradient g(r.topLeft(), r.topRight());
            g.setColorAt(0, ToQColor(row.progress.barColourFrom));
            g.setColorAt(1, ToQColor(row.progress.barColourTo));
            painter->fillRect(done, g);
        }
        // The text changes colour where the bar ends, so it stays readable on both parts.
        const QString text = QString::fromUtf8(row.progress.text.c_str());
        for (const auto& [clip, colour] : {std::pair{done, row.progress.textColour},
                                           std::pair{r.adjusted(filled, 0, 0, 0), row.progress.backTextColour}}) {
            if (clip.isEmpty()) continue;
            painter->setClipRect(clip);
            painter->setPen(ToQColor(colour));
            painter->drawText(r, Qt::AlignCenter, text);
        }
        painter->restore();
        return;
    }
    if (index.column() == app::COL_RESULT && row.result.visible) {
        // The label sits one pixel inside the cell on the left and at the bottom.
        const QRect r = option.rect.adjusted(1, 0, 0, -1);
        painter->save();
        painter->fillRect(r, ToQColor(row.result.backColour));
        painter->setPen(ToQColor(row.result.textColour));
        painter->setFont(ResultFont(QString::fromUtf8(row.result.text.c_str()), r.size()));
        painter->drawText(r, Qt::AlignCenter, QString::fromUtf8(row.result.text.c_str()));
        painter->restore();
        return;
    }
    QStyledItemDelegate::paint(painter, option, index);
}

QFont ResultFont(const QString& text, QSize label) {
    // Readable from across the bench: Arial at 0.8 of the label's height.
    QFont f(QStringLiteral("Arial"));
    f.setPixelSize(std::max(1, label.height() * 4 / 5));
    // A column too narrow for the verdict gets a smaller face rather than a clipped one.
    const int wide = QFontMetrics(f).horizontalAdvance(text);
    if (wide > label.width()) f.setPixelSize(std::max(8, f.pixelSize() * label.width() / wide));
    return f;
}

SlotListView::SlotListView(QWidget* parent) : QTableView(parent), delegate_(model_, this) {
    setModel(&model_);
    setItemDelegate(&delegate_);
    setShowGrid(true);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    verticalHeader()->hide();
    verticalHeader()->setDefaultSectionSize(28);
    setIconSize(QSize(kSlotIconSize, kSlotIconSize));
    horizontalHeader()->setHighlightSections(false);
    // The bind state column takes what the fitted columns leave, so no bare strip remains.
    horizontalHeader()->setMinimumSectionSize(20);
    horizontalHeader()->setStretchLastSection(true);
    setContextMenuPolicy(Qt::CustomContextMenu);
    connect(this, &QWidget::customContextMenuRequested, this,
            [this](const QPoint& pos) { Q_EMIT rowRightClicked(indexAt(pos).row(), viewport()->mapToGlobal(pos)); });
}

void SlotListView::Show(app::SlotListSnapshot snapshot) {
    const bool newColumns = !columnsSized_ && !snapshot.columns.empty();
    model_.Show(std::move(snapshot));
    if (newColumns) {
        const auto& columns = model_.Current().columns;
        for (std::size_t c = 0; c < columns.size(); ++c) setColumnWidth(static_cast<int>(c), columns[c].width);
        columnsSized_ = true;
    }
    FitColumns();
}

void SlotListView::SetBackdrop(QPixmap backdrop) {
    backdrop_ = std::move(backdrop);
    viewport()->update();
}

void SlotListView::paintEvent(QPaintEvent* event) {
    if (!backdrop_.isNull()) {
        QPainter p(viewport());
        const QSize room = viewport()->size() - backdrop_.size();
        p.drawPixmap(room.width(), room.height() * 95 / 100, backdrop_);
    }
    QTableView::paintEvent(event);
}

bool SlotListView::viewportEvent(QEvent* event) {
    // The viewport also narrows when the vertical scroll bar appears, not only when the window is resized.
    if (event->type() == QEvent::Resize) FitColumns();
    return QTableView::viewportEvent(event);
}

void SlotListView::FitColumns() {
    if (!columnsSized_ || model_.rowCount() == 0) return;
    const int client = viewport()->width();
    if (client == fittedWidth_) return;
    fittedWidth_ = client;
    const app::ColumnWidths widths = app::FittedColumnWidths(
        client, style()->pixelMetric(QStyle::PM_ScrollBarExtent, nullptr, this), columnWidth(app::COL_BINDED));
    // Dragged dividers stay until the width changes again.
    for (int c = 0; c < app::COL_BINDED; ++c) setColumnWidth(c, widths[static_cast<std::size_t>(c)]);
}

}  // namespace quorvel::widgets
