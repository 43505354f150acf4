#pragma once
// The bench view: one large tile per slot, to be read from across the bench. Each
// tile shows the slot number, its state as a word, a shape and a colour (pale grey
// with a ring and "IDLE" for an empty socket, yellow with an hourglass and "WAIT" for a
// phone whose job has not begun, slate with an arrow, the percentage and a bar while
// flashing, blue with a tick and "PASS", orange with a cross, stripes and "FAIL",
// violet with a stop square and "STOP" for a job cut short), the job's time and the
// slot's passes out of its jobs. It paints itself from snapshots of the slot list's
// view model; GUI thread only.

#include <QFont>
#include <QWidget>
#include <array>

#include "present/SlotListLayout.h"

namespace quorvel::widgets {

class BenchView : public QWidget {
    Q_OBJECT
public:
    static constexpr int kColumns = 4, kRows = 4;

    explicit BenchView(QWidget* parent = nullptr);
    void Show(const app::SlotListSnapshot& list);
    const std::array<app::BenchTile, app::kSlotCount>& Tiles() const { return tiles_; }

    // Where tile n and its texts go at the widget's current size, and in which faces.
    struct TileLayout {
        QRect tile, number, state, stateText, elapsed, counts;
        QFont numberFont, stateFont, smallFont;
    };
    TileLayout Layout(int n) const;
    QRect TileRect(int n) const;
    // The texts tile n shows: number, state word, time, counts.
    std::array<QString, 4> Texts(int n) const;
    // The tile under `at` (widget coordinates), or -1.
    int TileAt(QPoint at) const;
    static QString StateWord(app::TileState state, int percent);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void PaintTile(QPainter& p, int n) const;
    TileLayout FirstTileLayout() const;

    std::array<app::BenchTile, app::kSlotCount> tiles_;
    mutable QSize layoutSize_;
    mutable TileLayout layout_;
};

}  // namespace quorvel::widgets
