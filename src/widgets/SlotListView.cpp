#include "widgets/SlotListView.h"

#include <QHeaderView>
#include <QLinearGradient>
#include <QPainter>
#include <algorithm>

#include "widgets/SlotIcons.h"

namespace quorvel::widgets {

namespace {
QColor ToQColor(app::Rgb c) {
    return QColor((c >> 16) & 0xFF, (c >> 8) & 0xFF, c & 0xFF);
}
}  // namespace

void SlotTableModel::Show(app::SlotListSnapshot snapshot) {
    const bool reshaped =
        snapshot.rows.size() != snapshot_.rows.size() || snapshot.columns.size() != snapshot_.columns.size();
    if (reshaped) beginResetModel();
    snapshot_ = std::move(snapshot);
    if (reshaped) {
        endResetModel();
    } else if (!snapshot_.rows.empty()) {
        Q_EMIT dataChanged(index(0, 0), index(rowCount() - 1, columnCount() - 1));
    }
    Q_EMIT headerDataChanged(Qt::Horizontal, 0, columnCount() - 1);
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
    const QRect r = option.rect.adjusted(2, 2, -2, -2);
    if (index.column() == app::COL_PROGRESS && row.progress.visible) {
        painter->save();
        painter->fillRect(r, QColor(235, 235, 235));
        const int filled = r.width() * std::clamp(row.progress.position, 0, 100) / 100;
        if (filled > 0) {
            QLinearGradient g(r.topLeft(), r.topRight());
            g.setColorAt(0, ToQColor(row.progress.barColourFrom));
            g.setColorAt(1, ToQColor(row.progress.barColourTo));
            painter->fillRect(QRect(r.left(), r.top(), filled, r.height()), g);
        }
        painter->setPen(ToQColor(row.progress.textColour));
        painter->drawText(r, Qt::AlignCenter, QString::fromUtf8(row.progress.text.c_str()));
        painter->restore();
        return;
    }
    if (index.column() == app::COL_RESULT && row.result.visible) {
        painter->save();
        painter->fillRect(r, ToQColor(row.result.backColour));
        painter->setPen(ToQColor(row.result.textColour));
        // Readable from across the bench: Arial at 0.8 of the cell's height.
        QFont f(QStringLiteral("Arial"));
        f.setPixelSize(std::max(1, option.rect.height() * 4 / 5));
        const QString text = QString::fromUtf8(row.result.text.c_str());
        // A narrow column gets a smaller face rather than a clipped verdict.
        const int wide = QFontMetrics(f).horizontalAdvance(text);
        if (wide > r.width()) f.setPixelSize(std::max(8, f.pixelSize() * r.width() / wide));
        painter->setFont(f);
        painter->drawText(r, Qt::AlignCenter, text);
        painter->restore();
        return;
    }
    QStyledItemDelegate::paint(painter, option, index);
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
    // The station sizes the columns for a narrower list; the last one takes what is left,
    // so "Binded" is never clipped and no bare strip remains at the right.
    horizontalHeader()->setStretchLastSection(true);
    setContextMenuPolicy(Qt::CustomContextMenu);
    connect(this, &QWidget::customContextMenuRequested, this,
            [this](const QPoint& pos) { Q_EMIT rowRightClicked(indexAt(pos).row(), viewport()->mapToGlobal(pos)); });
}

void SlotListView::Show(app::SlotListSnapshot snapshot) {
    const bool newColumns = !columnsSized_ && !snapshot.columns.empty();
    model_.Show(std::move(snapshot));
    if (newColumns) {
        // Column widths come from the station once; afterwards the operator may drag them.
        const auto& columns = model_.Current().columns;
        for (std::size_t c = 0; c < columns.size(); ++c) setColumnWidth(static_cast<int>(c), columns[c].width);
        columnsSized_ = true;
    }
}

}  // namespace quorvel::widgets
