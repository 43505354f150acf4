#pragma once
// The slot list: a table view over snapshots of the station's SlotListModel. A
// delegate paints each row's progress bar (column 2) and result label (column 4)
// into their cells, so nothing has to be moved when columns are resized. The columns
// are fitted again whenever the list's client width changes.
// GUI thread only.

#include <QAbstractTableModel>
#include <QPixmap>
#include <QStyledItemDelegate>
#include <QTableView>

#include "station/SlotListModel.h"

namespace quorvel::widgets {

class SlotTableModel : public QAbstractTableModel {
    Q_OBJECT
public:
    explicit SlotTableModel(QObject* parent = nullptr) : QAbstractTableModel(parent) {}
    // Shows a new snapshot; keeps the view's selection when the row count is unchanged.
    void Show(app::SlotListSnapshot snapshot);
    const app::SlotListSnapshot& Current() const { return snapshot_; }

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    app::SlotListSnapshot snapshot_;
};

// The result label's face for a text in a label of the given size.
QFont ResultFont(const QString& text, QSize label);

class SlotCellDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    SlotCellDelegate(const SlotTableModel& model, QObject* parent) : QStyledItemDelegate(parent), model_(model) {}
    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;

private:
    const SlotTableModel& model_;
};

class SlotListView : public QTableView {
    Q_OBJECT
public:
    explicit SlotListView(QWidget* parent = nullptr);
    void Show(app::SlotListSnapshot snapshot);
    SlotTableModel& Model() { return model_; }
    // Drawn once behind the rows, at the right edge and 95 % of the way down.
    void SetBackdrop(QPixmap backdrop);

protected:
    bool viewportEvent(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

Q_SIGNALS:
    // Right-click on a row (-1 below the last row), at a global position.
    void rowRightClicked(int row, QPoint globalPos);

private:
    SlotTableModel model_;
    SlotCellDelegate delegate_;
    void FitColumns();

    QPixmap backdrop_;
    bool columnsSized_ = false;
    int fittedWidth_ = -1;
};

}  // namespace quorvel::widgets
