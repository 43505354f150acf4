// The console window starts with the right title, columns and counter texts.
#include <QComboBox>
#include <QFileDialog>
#include <QHeaderView>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QStatusBar>
#include <QToolTip>
#include <QtTest>
#include <algorithm>
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
#include "support/StationFixture.h"

using namespace quorvel;

class ConsoleWindowTest : public QObject {
    Q_OBJECT

    // A started console; without `settings` the folder has no settings file.
    struct Console {
        explicit Console(std::uint16_t systemLanguage = 1033, const char* simulated = "0", bool settings = true)
            : f(systemLanguage), loop(f.clock), controller(*f.station, loop, f.ui) {
            if (!settings) return;
            f.WriteSettings(std::string("[COMMON]\nMac=00-11-22-33-44-55\n[BENCH]\nSimulated=") + simulated + "\n");
            f.dir.Write("Config/TestResult.ini", "[total]\nNUM=8\n[fail]\nNUM=2\n");
            ok = controller.OnInitDialog();
        }
        bool ok = false;
        test::StationFixture f;
        app::StationLoop loop;
        console::ConsoleController controller;
    };

    static QStringList Headers(console::MainWindow& window) {
        QStringList headers;
        auto* model = window.SlotList().model();
        for (int c = 0; c < model->columnCount(); ++c)
            headers << model->headerData(c, Qt::Horizontal, Qt::DisplayRole).toString();
        return headers;
    }

    static QStringList CounterTexts(console::MainWindow& window) {
        QStringList texts;
        for (auto* edit : window.findChildren<QLineEdit*>()) texts << edit->text();
        return texts;
    }

private Q_SLOTS:
    // Titles, column headers and counter texts follow the system's language.
    void windowShowsTitleColumnsAndCountersInTheSystemLanguage() {
        for (const bool chinese : {false, true}) {
            Console c(chinese ? 2052 : 1033, chinese ? "1" : "0");
            QVERIFY(c.ok);
            console::MainWindow window(*c.f.station, c.loop, c.controller);
            window.Refresh();
            QCOMPARE(CounterTexts(window), QStringList({"8", "2", "75.00%"}));
            QVERIFY(window.windowTitle().startsWith("Quorvel, Ver 3.1707.28.14; Compiler: "));
            if (chinese) {
                QCOMPARE(Headers(window).first(), QString::fromUtf8("序号"));
                QCOMPARE(Headers(window).last(), QString::fromUtf8("绑定"));
                QVERIFY(window.windowTitle().endsWith("[SIMULATED BENCH]"));
                continue;
            }
            QVERIFY(window.windowTitle().endsWith("; Compiled Date: (2017/07/28 14:32:28)"));
            QCOMPARE(Headers(window),
                     QStringList({"No.", "Device Information", "Download Progress", "Timer", "Result", "Binded"}));
            QCOMPARE(window.SlotList().model()->rowCount(), 0);
            auto* status = window.findChild<QStatusBar*>();
            QVERIFY(status);
            const auto labels = status->findChildren<QLabel*>();  // four panes; the notice hidden while none
            QCOMPARE(std::count_if(labels.begin(), labels.end(), [](QLabel* l) { return !l->isHidden(); }), 4);
        }
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
            for (QWidget* w : QApplication::topLevelWidgets())
                if (auto* box = qobject_cast<QMessageBox*>(w); box && box->isVisible()) ++boxes;
            for (QWidget* w : QApplication::topLevelWidgets())
                if (auto* box = qobject_cast<QMessageBox*>(w)) box->accept();
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
            QToolTip::hideText();
            QWidget* viewport = window.SlotList().viewport();
            const QPoint at(5, window.SlotList().rowViewportPosition(0) + 2);
            QHelpEvent help(QEvent::ToolTip, at, viewport->mapToGlobal(at));
            QApplication::sendEvent(viewport, &help);
            return QToolTip::isVisible() ? QToolTip::text() : QString();
        };
        QCOMPARE(tip(), QString());  // busy again: the old failure is not its state
        QString asked;
        QTimer::singleShot(0, [&] {
            for (QWidget* w : QApplication::topLevelWidgets())
                if (auto* box = qobject_cast<QMessageBox*>(w); box && box->isVisible()) {
                    asked = box->text();
                    box->button(QMessageBox::No)->click();
                }
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
        QToolTip::hideText();
        QHelpEvent help(QEvent::ToolTip, onTile, bench.mapToGlobal(onTile));
        QApplication::sendEvent(&bench, &help);
        QCOMPARE(QToolTip::isVisible() ? QToolTip::text() : QString(), QString("DA download\nDownload failed!"));
        QStringList entries;
        QTimer::singleShot(0, [&] {
            for (QWidget* w : QApplication::topLevelWidgets())
                if (auto* menu = qobject_cast<QMenu*>(w); menu && menu->isVisible()) {
                    for (QAction* a : menu->actions()) entries << a->text();
                    menu->close();
                }
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

    void missingSettingsEndsTheConsole() {
        Console c(1033, "0", false);
        QVERIFY(!c.controller.OnInitDialog());
        QCOMPARE(c.f.ui.Messages().back(), std::string("Failed to read configuration file!"));
        QVERIFY(c.f.station->view.Snapshot().closeRequested);
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
