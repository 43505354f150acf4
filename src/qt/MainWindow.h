#pragma once
// The console window. It draws the station's view models and forwards the
// operator's clicks and menu commands to the station thread; it decides nothing.
// GUI thread only.

#include <QLabel>
#include <QLineEdit>
#include <QToolButton>
#include <QWidget>
#include <array>
#include <atomic>

#include "console/ConsoleController.h"
#include "qt/widgets/BenchView.h"
#include "qt/widgets/SlotListView.h"
#include "station/Station.h"
#include "station/StationLoop.h"

class QGroupBox;
class QStackedWidget;

namespace quorvel::console {

class MainWindow : public QWidget {
    Q_OBJECT
public:
    MainWindow(app::Station& station, app::StationLoop& loop, ConsoleController& controller);
    ~MainWindow() override;

    // Redraws from the view models now (normally coalesced after changes).
    void Refresh();
    widgets::SlotListView& SlotList() { return *slotList_; }
    widgets::BenchView& Bench() { return *benchView_; }
    // The session is ending (logout, shutdown): a close from now on is not asked.
    // `closeNow` closes the window at once (SIGTERM, where nothing else will).
    void EndSession(bool closeNow);

protected:
    void closeEvent(QCloseEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // The slot a shown row belongs to, by its number; -1 for none.
    int SlotOfRow(int row) const;
    void ShowHistory(int row);
    void ScheduleRefresh();
    QToolButton* MakeButton(int control);
    void ShowContextMenu(int row, QPoint globalPos);

    app::Station& station_;
    app::StationLoop& loop_;
    ConsoleController& controller_;
    std::atomic<bool> refreshPending_{false};

    QGroupBox* operationArea_;
    QToolButton* startStop_;
    QToolButton* settings_;
    QToolButton* help_;
    QLabel* panel_;
    QLabel* totalLabel_;
    QLabel* failureLabel_;
    QLabel* passRateLabel_;
    QLineEdit* total_;
    QLineEdit* failures_;
    QLineEdit* passRate_;
    QLabel* logo_;
    QLabel* banner_;
    widgets::SlotListView* slotList_;
    widgets::BenchView* benchView_;
    QStackedWidget* views_;
    QAction* benchViewAction_;
    std::array<std::pair<int, int>, 3> shownIcons_{};
    QLabel* panes_[4];
    QLabel* notice_;  // the bench's lasting problem, hidden while there is none
    std::string shownBackground_;
    bool sessionEnding_ = false;
};

}  // namespace quorvel::console
