// The console window starts with the right title, columns and counter texts.
#include <QComboBox>
#include <QFileDialog>
#include <QHeaderView>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QRegularExpression>
#include <QToolTip>
#include <QtTest>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "console/ConsoleController.h"
#include "present/AboutDialogLogic.h"
#include "qt/MainWindow.h"
#include "qt/QtConsoleUi.h"
#include "qt/dialogs/AboutDialog.h"
#include "qt/dialogs/SettingsDialog.h"
#include "station/BindState.h"
#include "station/StationLoop.h"
#include "station/Texts.h"
#include "support/Golden.h"
#include "support/StationFixture.h"

using namespace quorvel;

class ConsoleWindowTest : public QObject {
    Q_OBJECT

    // A started console.
    struct Console {
        explicit Console(std::uint16_t systemLanguage = 1033, const char* simulated = "0")
            : f(systemLanguage), loop(f.clock), controller(*f.station, loop, f.ui) {
            f.WriteSettings(std::string("[COMMON]\nMac=00-11-22-33-44-55\n[BENCH]\nSimulated=") + simulated + "\n");
            f.dir.Write("Config/TestResult.ini", "[total]\nNUM=8\n[fail]\nNUM=2\n");
            ok = controller.OnInitDialog();
        }
        bool ok = false;
        test::StationFixture f;
        app::StationLoop loop;
        console::ConsoleController controller;
    };

    // The window's texts as the operator reads them: title, shown labels, counters, columns.
    static QString Texts(console::MainWindow& window) {
        QString text = "title " + window.windowTitle().replace(QRegularExpression("Compiler: [^;]*"), "Compiler: *");
        for (auto* label : window.findChildren<QLabel*>())
            if (!label->isHidden()) text += "\nlabel [" + label->text() + "]";
        for (auto* edit : window.findChildren<QLineEdit*>()) text += "\ncounter " + edit->text();
        auto* model = window.SlotList().model();
        text += "\ncolumns";
        for (int c = 0; c < model->columnCount(); ++c) text += " | " + model->headerData(c, Qt::Horizontal).toString();
        text += "\nrows " + QString::number(model->rowCount()) + "\n";
        return text.replace(QRegularExpression(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"), "<local time>");
    }

    // The tooltip `widget` shows at `at`, or nothing.
    static QString TipAt(QWidget* widget, QPoint at) {
        QToolTip::hideText();
        QHelpEvent help(QEvent::ToolTip, at, widget->mapToGlobal(at));
        QApplication::sendEvent(widget, &help);
        return QToolTip::isVisible() ? QToolTip::text() : QString();
    }

    // Once the event loop runs again (a modal window's own), `f` on each shown top-level T.
    template <typename T>
    static void OnShown(std::function<void(T*)> f) {
        QTimer::singleShot(0, [f] {
            for (QWidget* w : QApplication::topLevelWidgets())
                if (auto* t = qobject_cast<T*>(w); t && t->isVisible()) f(t);
        });
    }

private Q_SLOTS:
    // In the system's language; the simulated bench says so in the title: tests/golden/console-window/start.txt.
    void windowShowsTitleColumnsAndCountersInTheSystemLanguage() {
        std::string text;
        for (const bool chinese : {false, true}) {
            Console c(chinese ? 2052 : 1033, chinese ? "1" : "0");
            QVERIFY(c.ok);
            console::MainWindow window(*c.f.station, c.loop, c.controller);
            window.Refresh();
            text += Texts(window).toStdString();
        }
        const auto golden = test::MatchesGolden("console-window/start.txt", text);
        QVERIFY2(golden, golden.message());
    }

    void rowsShowTheirIconsAndTheDialogKeysCloseTheConsole() {
        Console c;
        QVERIFY(c.ok);
        auto& list = c.f.station->slotList;
        for (int icon : {1, 2}) list.SetCellIcon(list.InsertRow("0" + std::to_string(icon)), app::COL_DEVICE, icon);
        for (const int key : {Qt::Key_Escape, Qt::Key_Return, Qt::Key_Enter}) {
            console::MainWindow window(*c.f.station, c.loop, c.controller);
            window.Refresh();
            auto* model = window.SlotList().model();
            for (int row : {0, 1}) {
                const auto icon = model->data(model->index(row, app::COL_DEVICE), Qt::DecorationRole).value<QPixmap>();
                QCOMPARE(icon.size(), QSize(24, 24));
            }
            window.show();
            QApplication::setActiveWindow(&window);
            QVERIFY(QTest::qWaitForWindowActive(&window));
            QTest::keyClick(&window, static_cast<Qt::Key>(key));
            QVERIFY(!window.isVisible());
        }
    }

    // After "Please Reboot the Tool..." the window is hidden, then closed: the event
    // loop must end as it does for a visible window's close.
    void closingTheHiddenWindowEndsTheEventLoop() {
        Console c;
        QVERIFY(c.ok);
        console::MainWindow window(*c.f.station, c.loop, c.controller);
        window.show();
        c.f.station->view.RequestClose(true);
        QTimer::singleShot(0, &window, [&] { window.Refresh(); });
        QTimer::singleShot(10000, [] { QCoreApplication::exit(7); });  // it did not end
        QCOMPARE(QCoreApplication::exec(), 0);
        QVERIFY(!window.isVisible());
    }

    // A refused automatic stop while phones keep coming must not pile up boxes.
    void aBoxOnScreenIsNotStackedAgainWithTheSameText() {
        console::QtConsoleUi ui(QCoreApplication::instance());
        int boxes = 0;
        bool secondReturned = false;
        QTimer::singleShot(50, [&] {
            ui.MessageBox("same");  // the first is still open: returns at once
            secondReturned = true;
            OnShown<QMessageBox>([&](QMessageBox* box) {
                ++boxes;
                box->accept();
            });
        });
        ui.MessageBox("same");
        QVERIFY(secondReturned);
        QCOMPARE(boxes, 1);
    }

    // A close while a phone is flashed asks first, naming its slot; the session's end is
    // not asked. A failed row tells why in its tooltip once its slot is no longer busy.
    void busySlotsAskBeforeCloseAndAFailedRowTellsWhy() {
        Console c;
        QVERIFY(c.ok);
        app::Station& st = *c.f.station;
        st.slotList.InsertRow("07");
        st.bindings.SetState(6, app::BindState::Busy);
        st.slots.jobRunning[6] = true;  // the close question names slots whose job runs
        app::JobRecord failed;
        failed.slot = 6;
        failed.result = app::JobResult::Fail;
        failed.failedStep = "DA download";
        failed.errorText = "Download failed!";
        st.history.Append(failed);
        console::MainWindow window(st, c.loop, c.controller);
        window.Refresh();
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        auto tip = [&] {
            return TipAt(window.SlotList().viewport(), {5, window.SlotList().rowViewportPosition(0) + 2});
        };
        QCOMPARE(tip(), QString());  // busy again: the old failure is not its state
        QString asked;
        OnShown<QMessageBox>([&](QMessageBox* box) {
            asked = box->text();
            box->button(QMessageBox::No)->click();
        });
        window.close();
        QVERIFY2(asked.contains("slot 07."), qPrintable(asked));
        QVERIFY(window.isVisible());

        st.bindings.SetState(6, app::BindState::AllBinded);
        st.slots.jobRunning[6] = false;
        QCOMPARE(tip(), QString("DA download\nDownload failed!"));
        // Its tile tells the same, and offers the row's menu with the History entry.
        st.view.SetBenchView(true);
        window.Refresh();
        auto& bench = window.Bench();
        QVERIFY(bench.isVisible());
        const QPoint onTile = bench.TileRect(0).center();
        QCOMPARE(TipAt(&bench, onTile), QString("DA download\nDownload failed!"));
        QStringList entries;
        OnShown<QMenu>([&](QMenu* menu) {
            for (QAction* a : menu->actions()) entries << a->text();
            menu->close();
        });
        Q_EMIT bench.customContextMenuRequested(onTile);
        const QString history = QString::fromStdString(st.language.ChooseText(app::texts::kMenuHistory));
        QVERIFY2(entries.contains(history), qPrintable(entries.join("|")));
        st.view.SetBenchView(false);
        window.Refresh();
        st.bindings.SetState(6, app::BindState::Busy);
        window.EndSession(true);
        QVERIFY(!window.isVisible());
    }

    // Load's file dialog shows the filter's name as it stands, its patterns apart; the
    // about dialog shows the program's icon.
    void dialogsShowTheFilterNameAndTheIcon() {
        std::unique_ptr<QFileDialog> files(
            dialogs::SettingsDialog::MakeFileDialog(nullptr, "Settings", QDir::tempPath()));
        auto* types = files->findChild<QComboBox*>("fileTypeCombo");
        QVERIFY(types);
        QCOMPARE(types->count(), 1);
        QCOMPARE(types->itemText(0), QString("txt file (*.txt;*.bin)"));

        Console c;
        app::AboutDialogLogic logic(*c.f.station, app::EngineVersions{}, "", "", "");
        dialogs::AboutDialog about(logic, nullptr);
        auto* icon = about.findChild<QLabel*>("icon");
        QVERIFY(icon && !icon->pixmap().isNull());
    }

    // The window closed while the station thread was asking for a message box: the
    // station thread must go on, not wait for an event loop that has ended.
    void aBoxAskedForAfterTheWindowClosedReleasesItsCaller() {
        console::QtConsoleUi ui(QCoreApplication::instance());
        std::promise<void> back;
        auto returned = back.get_future();
        std::thread station([&] {
            ui.MessageBox("late");
            back.set_value();
        });
        // Time for the request to be queued; no event loop runs here to answer it.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ui.CloseGui();
        const bool released = returned.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
        released ? station.join() : station.detach();
        QVERIFY(released);
    }
};

QTEST_MAIN(ConsoleWindowTest)
#include "console_window_test.moc"
