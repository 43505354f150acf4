#include "qt/MainWindow.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHelpEvent>
#include <QMenu>
#include <QMessageBox>
#include <QShortcut>
#include <QStackedWidget>
#include <QStatusBar>
#include <QStyle>
#include <QTimer>
#include <QToolTip>
#include <QVBoxLayout>
#include <cstdio>
#include <cstdlib>

#include "history/SlotHistory.h"
#include "present/CloseCheck.h"
#include "qt/dialogs/SlotHistoryDialog.h"
#include "qt/widgets/Artwork.h"
#include "station/Messages.h"
#include "station/Texts.h"

namespace quorvel::console {

using namespace app;

namespace {
constexpr int kRedrawIntervalMs = 40;  // at most 25 redraws a second
const QColor kBackground(247, 255, 252);

QString Q(const std::string& s) {
    return QString::fromUtf8(s.c_str());
}
}  // namespace

MainWindow::MainWindow(Station& station, app::StationLoop& loop, ConsoleController& controller)
    : station_(station), loop_(loop), controller_(controller) {
    setObjectName("console");
    // A palette, not a style sheet: a sheet on the window would route every child's
    // painting, the slot list's sixteen rows included, through the slower sheet style.
    QPalette palette = this->palette();
    palette.setColor(QPalette::Window, kBackground);
    setPalette(palette);
    setAutoFillBackground(true);
    resize(1040, 640);
    setMinimumSize(640, 360);
    setWindowIcon(widgets::WindowIcon());

    operationArea_ = new QGroupBox(this);
    auto* buttons = new QHBoxLayout(operationArea_);
    startStop_ = MakeButton(IDC_START_STOP);
    settings_ = MakeButton(IDC_SETTINGS);
    help_ = MakeButton(IDC_HELP);
    // The view choice lives in the Help button's menu; its key works also while a run
    // has the button disabled.
    benchViewAction_ = new QAction(this);
    benchViewAction_->setCheckable(true);
    benchViewAction_->setShortcut(QKeySequence(Qt::Key_F9));
    addAction(benchViewAction_);
    connect(benchViewAction_, &QAction::triggered, this,
            [this](bool on) { loop_.PostTask([this, on] { controller_.SetBenchView(on); }); });
    auto* helpMenu = new QMenu(help_);
    helpMenu->addAction(benchViewAction_);
    help_->setMenu(helpMenu);
    help_->setPopupMode(QToolButton::MenuButtonPopup);
    buttons->addWidget(startStop_);
    buttons->addWidget(settings_);
    buttons->addWidget(help_);

    panel_ = new QLabel(this);
    panel_->setObjectName("panel");
    panel_->setMinimumHeight(70);
    panel_->setWordWrap(true);
    panel_->setFrameShape(QFrame::StyledPanel);
    panel_->setMargin(4);

    auto* counters = new QGridLayout;
    totalLabel_ = new QLabel(this);
    failureLabel_ = new QLabel(this);
    passRateLabel_ = new QLabel(this);
    for (QLineEdit** edit : {&total_, &failures_, &passRate_}) {
        *edit = new QLineEdit(this);
        (*edit)->setReadOnly(true);
        (*edit)->setFixedWidth(70);
        (*edit)->setFocusPolicy(Qt::NoFocus);
    }
    counters->addWidget(totalLabel_, 0, 0);
    counters->addWidget(total_, 0, 1);
    counters->addWidget(failureLabel_, 1, 0);
    counters->addWidget(failures_, 1, 1);
    counters->addWidget(passRateLabel_, 2, 0);
    counters->addWidget(passRate_, 2, 1);

    logo_ = new QLabel(this);
    logo_->setFixedSize(233, 88);
    logo_->setPixmap(widgets::Logo());

    auto* top = new QHBoxLayout;
    top->addWidget(operationArea_, 0, Qt::AlignTop);
    top->addWidget(panel_, 1);
    top->addLayout(counters);
    top->addWidget(logo_, 0, Qt::AlignTop);

    banner_ = new QLabel(this);
    banner_->setObjectName("banner");
    QFont bannerFont(QStringLiteral("Arial"));
    bannerFont.setPixelSize(24);
    // Weight 65 is below the thinnest face Arial has, so the regular face is drawn.
    bannerFont.setWeight(QFont::Normal);
    banner_->setFont(bannerFont);
    banner_->setMinimumHeight(40);
    banner_->setTextInteractionFlags(Qt::TextSelectableByMouse);

    slotList_ = new widgets::SlotListView(this);
    palette.setColor(QPalette::Base, kBackground);  // the backdrop's own ground
    slotList_->setPalette(palette);
    connect(slotList_, &widgets::SlotListView::rowRightClicked, this, &MainWindow::ShowContextMenu);
    slotList_->viewport()->installEventFilter(this);

    auto* status = new QStatusBar(this);
    notice_ = new QLabel(this);
    {
        QPalette red = notice_->palette();
        red.setColor(QPalette::WindowText, QColor(176, 0, 0));
        notice_->setPalette(red);
        QFont bold = notice_->font();
        bold.setBold(true);
        notice_->setFont(bold);
    }
    notice_->hide();
    status->addWidget(notice_);
    const int widths[4] = {0, 150, 100, 150};
    for (int i = 0; i < 4; ++i) {
        panes_[i] = new QLabel(this);
        if (widths[i]) panes_[i]->setFixedWidth(widths[i]);
        status->addPermanentWidget(panes_[i], i == 0 ? 1 : 0);
    }

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(banner_);
    benchView_ = new widgets::BenchView(this);
    // A tile offers what its row does: the failure's tooltip, the context menu.
    benchView_->installEventFilter(this);
    benchView_->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(benchView_, &QWidget::customContextMenuRequested, this, [this](QPoint at) {
        const int n = benchView_->TileAt(at);
        // Row n is slot n; a tile without a row has nothing to offer.
        if (n >= 0 && n < static_cast<int>(slotList_->Model().Current().rows.size()))
            ShowContextMenu(n, benchView_->mapToGlobal(at));
    });
    views_ = new QStackedWidget(this);
    views_->addWidget(slotList_);
    views_->addWidget(benchView_);
    layout->addWidget(views_, 1);
    layout->addWidget(status);

    // The dialog keys end the console as the close box does.
    for (const QKeySequence& key :
         {QKeySequence(Qt::Key_Escape), QKeySequence(Qt::Key_Return), QKeySequence(Qt::Key_Enter)})
        connect(new QShortcut(key, this), &QShortcut::activated, this, &QWidget::close);

    // Observers run on whichever thread changed the model; they only schedule a redraw.
    station_.view.SetObserver([this] { ScheduleRefresh(); });
    station_.slotList.SetObserver([this] { ScheduleRefresh(); });
    Refresh();
}

MainWindow::~MainWindow() {
    station_.view.SetObserver({});
    station_.slotList.SetObserver({});
}

QToolButton* MainWindow::MakeButton(int control) {
    auto* b = new QToolButton(this);
    b->setIconSize(QSize(40, 40));
    b->setAutoRaise(true);
    connect(b, &QToolButton::clicked, this, [this, control] { loop_.Post(Command{static_cast<CommandId>(control)}); });
    return b;
}

void MainWindow::ScheduleRefresh() {
    if (refreshPending_.exchange(true)) return;
    QMetaObject::invokeMethod(
        this, [this] { QTimer::singleShot(kRedrawIntervalMs, this, [this] { Refresh(); }); }, Qt::QueuedConnection);
}

void MainWindow::Refresh() {
    refreshPending_ = false;
    const ConsoleSnapshot s = station_.view.Snapshot();
    auto control = [&](int id) {
        auto it = s.controls.find(id);
        return it == s.controls.end() ? ControlState{} : it->second;
    };
    setWindowTitle(Q(s.title));
    operationArea_->setTitle(Q(control(IDC_OPERATION_AREA).text));
    totalLabel_->setText(Q(control(IDC_TOTAL_LABEL).text));
    failureLabel_->setText(Q(control(IDC_FAILURE_LABEL).text));
    passRateLabel_->setText(Q(control(IDC_PASS_RATE_LABEL).text));
    // A line edit repaints on every setText, even of the text it has.
    for (auto [edit, id] : {std::pair{total_, IDC_TOTAL}, {failures_, IDC_FAILURES}, {passRate_, IDC_PASS_RATE}})
        if (const QString text = Q(control(id).text); edit->text() != text) edit->setText(text);
    panel_->setText(Q(control(IDC_PANEL).text));
    banner_->setText(Q(control(IDC_PATH_BANNER).text));
    for (auto [label, id] : {std::pair{panel_, IDC_PANEL}, {banner_, IDC_PATH_BANNER}}) {
        const ControlState c = control(id);
        if (c.fontFace.empty() || c.fontHeight <= 0) continue;
        QFont font(Q(c.fontFace));
        font.setPixelSize(c.fontHeight);
        // Weights below the thinnest face draw the regular one, as the original fonts did.
        font.setWeight(c.fontWeight >= 600 ? QFont::Bold : QFont::Normal);
        label->setFont(font);
    }
    const std::array<std::pair<QToolButton*, int>, 3> buttons{
        {{startStop_, IDC_START_STOP}, {settings_, IDC_SETTINGS}, {help_, IDC_HELP}}};
    for (std::size_t i = 0; i < buttons.size(); ++i) {
        const auto [button, id] = buttons[i];
        const ControlState c = control(id);
        button->setToolTip(Q(c.toolTip));
        button->setEnabled(c.enabled);
        if (const std::pair icons{c.iconIn, c.iconOut}; icons != shownIcons_[i]) {
            shownIcons_[i] = icons;
            button->setIcon(widgets::ButtonIcon(c.iconIn, c.iconOut));
        }
    }
    benchViewAction_->setText(Q(station_.language.ChooseText(texts::kMenuBenchView)));
    benchViewAction_->setChecked(s.benchView);
    views_->setCurrentWidget(s.benchView ? static_cast<QWidget*>(benchView_) : slotList_);
    for (int i = 0; i < 4; ++i) panes_[i]->setText(Q(s.panes[static_cast<std::size_t>(i)]));
    if (notice_->text() != Q(s.notice)) {
        notice_->setText(Q(s.notice));
        notice_->setToolTip(Q(s.notice));
        notice_->setVisible(!s.notice.empty());
    }
    if (s.backgroundImage != shownBackground_) {
        shownBackground_ = s.backgroundImage;
        slotList_->SetBackdrop(QPixmap(Q(s.backgroundImage)));  // null when the file is missing
    }
    SlotListSnapshot list = station_.slotList.Snapshot();
    benchView_->Show(list);
    slotList_->Show(std::move(list));
    if (s.closeRequested) {
        if (s.hidden) hide();
        close();
    }
}

void MainWindow::ShowContextMenu(int row, QPoint globalPos) {
    loop_.PostTask([this, row] { controller_.SetSelectedRow(row); });
    if (row < 0) return;
    const Language& lang = station_.language;
    const bool running = station_.stationRunning.load();
    QMenu menu(this);
    struct Item {
        CommandId command;
        LangText text;
        bool enabled;
    };
    for (const Item& item : {Item{CommandId::REMOVE_BIND, texts::kMenuRemoveBind, !running},
                             Item{CommandId::REMOVE_ALL_BIND, texts::kMenuRemoveAllBind, !running},
                             Item{CommandId::MERGE_REPEAT_BIND, texts::kMenuMergeRepeatBind, false},
                             Item{CommandId::REMOVE_STATISTICS, texts::kMenuRemoveStatistics, true}}) {
        QAction* action = menu.addAction(Q(lang.ChooseText(item.text)));
        action->setEnabled(item.enabled);
        connect(action, &QAction::triggered, this, [this, command = item.command] { loop_.Post(Command{command}); });
    }
    menu.addSeparator();
    // Reading the history touches nothing of the station's: it opens also while it runs.
    connect(menu.addAction(Q(lang.ChooseText(texts::kMenuHistory))), &QAction::triggered, this,
            [this, row] { ShowHistory(row); });
    menu.exec(globalPos);
}

int MainWindow::SlotOfRow(int row) const {
    const auto& rows = slotList_->Model().Current().rows;
    if (row < 0 || row >= static_cast<int>(rows.size())) return -1;
    const int number = std::atoi(rows[static_cast<std::size_t>(row)].cells[COL_NUMBER].text.c_str());
    return number >= 1 && number <= kSlotCount ? number - 1 : -1;
}

void MainWindow::ShowHistory(int row) {
    const int slot = SlotOfRow(row);
    if (slot < 0) return;
    char number[16];
    std::snprintf(number, sizeof number, "%02d", slot + 1);
    dialogs::SlotHistoryDialog dialog(
        number, TodaysSlotHistory(station_.history.Dir(), slot, station_.clock.WallSeconds()), station_.language, this);
    dialog.exec();
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event) {
    // A row or tile whose last job failed tells why when the pointer rests on it.
    const bool onList = watched == slotList_->viewport(), onBench = watched == benchView_;
    if ((!onList && !onBench) || event->type() != QEvent::ToolTip) return QWidget::eventFilter(watched, event);
    auto* help = static_cast<QHelpEvent*>(event);
    const int slot = onList ? SlotOfRow(slotList_->rowAt(help->pos().y())) : SlotOfRow(benchView_->TileAt(help->pos()));
    if (slot < 0 || station_.bindings.State(slot) == BindState::Busy) return QWidget::eventFilter(watched, event);
    const auto last = station_.history.LastJob(slot);
    const std::string why = last ? FailureText(*last) : std::string();
    if (why.empty()) return QWidget::eventFilter(watched, event);
    QToolTip::showText(help->globalPos(), Q(why), static_cast<QWidget*>(watched));
    return true;
}

void MainWindow::EndSession(bool closeNow) {
    sessionEnding_ = true;
    if (closeNow) close();
}

void MainWindow::closeEvent(QCloseEvent* event) {
    // A close cuts the jobs running short, which can leave those phones unusable: the
    // operator confirms it, unless the session is ending and nobody is there to answer.
    const std::string question = CloseQuestion(BusySlots(station_.slots), station_.language, sessionEnding_);
    if (!question.empty() &&
        QMessageBox::question(this, QStringLiteral("Quorvel"), Q(question), QMessageBox::Yes | QMessageBox::No,
                              QMessageBox::No) != QMessageBox::Yes) {
        event->ignore();
        return;
    }
    // Qt quits by itself only when the last visible window closes; the restart notice
    // hides the window first, so the program is ended here.
    event->accept();
    QCoreApplication::quit();
}

}  // namespace quorvel::console
