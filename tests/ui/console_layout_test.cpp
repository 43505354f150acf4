// The console at the screen sizes of a bench PC: the slot list's columns fit and its
// verdicts are whole at every width, and the bench tiles fill 1366 x 768 without
// overlapping or cutting a text. Compared by geometry, not pixels. With
// QUORVEL_SCREENSHOT_DIR set, the two views are also saved there as PNG files.
#include <QHeaderView>
#include <QScrollBar>
#include <QtTest>
#include <filesystem>

#include "console/ConsoleController.h"
#include "present/SlotListLayout.h"
#include "qt/MainWindow.h"
#include "station/StationLoop.h"
#include "support/StationFixture.h"

using namespace quorvel;

namespace {

constexpr app::Rgb kRed = app::MakeRgb(255, 0, 0), kBlue = app::MakeRgb(0, 0, 255);

// Sixteen slots in the middle of a shift: every state the list and the tiles can show,
// six looks over and over: a pass, a fail, a flash, an interrupted job, a phone waiting
// for its job, a bound socket without a phone.
void FillShift(app::SlotListModel& list) {
    using P = app::SlotPhase;
    list.DeleteAllRows();
    for (int n = 0; n < app::kSlotCount; ++n) {
        char number[12];
        std::snprintf(number, sizeof number, "%02d", n + 1);
        list.EditRow(list.InsertRow(number), [&](app::SlotRow& r) {
            const std::string com = "(COM" + std::to_string(n + 10) + ")";
            r.cells[app::COL_DEVICE] = {"MTK PreLoader USB VCOM " + com, app::kBlack, app::kIconPhone};
            r.cells[app::COL_BINDED].text = "ALL_BINDED";
            auto job = [&](unsigned passes, unsigned jobs, P phase, app::SlotResult result, app::SlotProgress bar,
                           const char* timer) {
                r.passCount = passes, r.jobCount = jobs, r.phase = phase, r.result = result, r.progress = bar;
                r.cells[app::COL_TIMER].text = timer;
            };
            const app::Rgb black = app::kBlack;
            if (n % 6 == 0)
                job(10, 11, P::PASS, {"PASS(10/11)", app::MakeRgb(52, 107, 36)},
                    {100, "Download Completely!(100%)(7.31 MB/s)"}, "00:02:41");
            if (n % 6 == 1)
                job(9, 12, P::FAIL, {"FAIL(9/12)", kRed}, {37, "Failed: Download failed!", black, black, kRed, kBlue},
                    "00:01:07");
            if (n % 6 == 2)
                job(0, 0, P::FLASHING, {"Ongoing", kBlue},
                    {30, "Downloading...(3.00/10.00M)(30%)", app::kWhite, black, app::MakeRgb(0, 160, 0), kBlue},
                    "00:00:52");
            if (n % 6 == 3)
                job(4, 5, P::INTERRUPTED, {"FAIL(4/5)", kRed},
                    {62, "Download cancelled!(62%)", black, black, kRed, kBlue}, "00:01:30");
            r.progress.visible = r.result.visible = n % 6 < 4;
            if (n % 6 == 5) r.cells[app::COL_DEVICE] = {com, 0x808080, app::kIconSocket};
        });
    }
}

void SaveShot(QWidget& window, const char* name) {
    const QByteArray dir = qgetenv("QUORVEL_SCREENSHOT_DIR");
    if (!dir.isEmpty()) QVERIFY(window.grab().save(QString::fromUtf8(dir) + "/" + name));
}

}  // namespace

class ConsoleLayoutTest : public QObject {
    Q_OBJECT

    struct Console {
        Console() : loop(f.clock), controller(*f.station, loop, f.ui) {
            // The list's backdrop as the station folder ships it.
            std::filesystem::create_directories(f.dir.Path() + "res");
            for (const char* name : {"BRINDLE.bmp", "BRINDLE_E.bmp"})
                std::filesystem::copy_file(std::string(QUORVEL_SOURCE_DIR "/station-template/res/") + name,
                                           f.dir.Path() + "res/" + name);
            f.WriteSettings("[COMMON]\nMac=00-11-22-33-44-55\n[BENCH]\nSimulated=0\n");
            ok = controller.OnInitDialog();
            FillShift(f.station->slotList);
        }
        test::StationFixture f;
        app::StationLoop loop;
        console::ConsoleController controller;
        bool ok = false;
    };

    static void Settle(QWidget& w, QSize size) {
        w.resize(size);
        w.show();
        QVERIFY(QTest::qWaitForWindowExposed(&w));
        QCoreApplication::processEvents();
    }

private Q_SLOTS:
    // The columns follow every change of the list's width, and "PASS(10/11)" is never
    // clipped: drawn whole in the full face where the column allows, smaller where not.
    void columnsFitTheListAtEveryWidth() {
        Console c;
        QVERIFY(c.ok);
        console::MainWindow window(*c.f.station, c.loop, c.controller);
        window.Refresh();
        auto& list = window.SlotList();
        const int scrollBar = list.style()->pixelMetric(QStyle::PM_ScrollBarExtent, nullptr, &list);
        for (const int width : {800, 1366, 1600, 1024}) {
            Settle(window, {width, 768});
            QCOMPARE(window.width(), width);
            const int client = list.viewport()->width();
            const app::ColumnWidths want = app::FittedColumnWidths(client, scrollBar, 0);
            int sum = 0;
            for (int col = 0; col < app::kSlotColumnCount; ++col) {
                if (col < app::COL_BINDED) QCOMPARE(list.columnWidth(col), want[static_cast<std::size_t>(col)]);
                sum += list.columnWidth(col);
            }
            QVERIFY2(sum <= client && !list.horizontalScrollBar()->isVisible(), qPrintable(QString::number(width)));
            QVERIFY(list.columnWidth(app::COL_BINDED) >= 20);

            const QRect cell = list.visualRect(list.model()->index(0, app::COL_RESULT)).adjusted(1, 0, 0, -1);
            const QFont face = widgets::ResultFont("PASS(10/11)", cell.size());
            QVERIFY(QFontMetrics(face).horizontalAdvance("PASS(10/11)") <= cell.width());
            if (width >= 1366) QCOMPARE(face.pixelSize(), cell.height() * 4 / 5);
        }
        // A divider the operator dragged stays until the width changes again.
        list.setColumnWidth(app::COL_DEVICE, 150);
        window.Refresh();
        QCOMPARE(list.columnWidth(app::COL_DEVICE), 150);
        window.resize(1300, 768);
        QCoreApplication::processEvents();
        QVERIFY(list.columnWidth(app::COL_DEVICE) != 150);
    }

    // Both views at 1366 x 768: every row of the list on screen; sixteen tiles in a
    // grid, none overlapping, each big enough to read across the bench and every text
    // inside its place. The choice of view is kept in CommonSetting.ini.
    void bothViewsAt1366x768() {
        Console c;
        QVERIFY(c.ok);
        console::MainWindow window(*c.f.station, c.loop, c.controller);
        window.Refresh();
        Settle(window, {1366, 768});
        auto& list = window.SlotList();
        QVERIFY(list.isVisible() && !window.Bench().isVisible());
        for (int row = 0; row < app::kSlotCount; ++row)
            QVERIFY(list.viewport()->rect().contains(list.visualRect(list.model()->index(row, app::COL_RESULT))));
        SaveShot(window, "console-list.png");

        // F9 goes through the station thread, as the Help menu's entry does.
        c.loop.Start();
        QApplication::setActiveWindow(&window);
        QVERIFY(QTest::qWaitForWindowActive(&window));
        QTest::keyClick(&window, Qt::Key_F9);
        auto& bench = window.Bench();
        QTRY_VERIFY(bench.isVisible() && !list.isVisible());
        c.loop.Stop();
        QCOMPARE(bench.Tiles()[1].state, app::TileState::FAIL);  // the tiles show the list's slots
        QRegion covered;
        for (int n = 0; n < app::kSlotCount; ++n) {
            const auto l = bench.Layout(n);
            QVERIFY(bench.rect().contains(l.tile));
            QVERIFY2(!covered.intersects(l.tile), qPrintable(QString("tile %1").arg(n)));
            covered += l.tile;
            QVERIFY(l.tile.width() >= 300 && l.tile.height() >= 110);
            QVERIFY(l.stateFont.pixelSize() >= 40);  // about 1 cm tall on a 15" 1366 x 768 screen
            const auto texts = bench.Texts(n);
            const std::pair<QRect, QFont> places[] = {{l.number, l.numberFont},
                                                      {l.stateText, l.stateFont},
                                                      {l.elapsed, l.smallFont},
                                                      {l.counts, l.smallFont}};
            for (std::size_t t = 0; t < texts.size(); ++t) {
                const QFontMetrics m(places[t].second);
                QVERIFY2(
                    m.horizontalAdvance(texts[t]) <= places[t].first.width() && m.height() <= places[t].first.height(),
                    qPrintable(QString("tile %1 text %2").arg(n).arg(texts[t])));
            }
        }
        SaveShot(window, "console-bench.png");
        QVERIFY(c.f.ReadSettings().find("[UI]\nBenchView=1") != std::string::npos);

        Console again;
        QVERIFY(again.ok);
        QVERIFY(again.f.station->view.Snapshot().benchView == false);  // a new folder starts with the list
        again.f.WriteSettings(c.f.ReadSettings());
        QVERIFY(again.controller.OnInitDialog());
        QVERIFY(again.f.station->view.Snapshot().benchView);
    }
};

QTEST_MAIN(ConsoleLayoutTest)
#include "console_layout_test.moc"
