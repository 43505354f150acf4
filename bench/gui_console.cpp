// The console window under a full bench, on the offscreen platform: sixteen slots
// report progress as fast as the station thread takes it, and every two seconds all
// sixteen phones finish and the next sixteen arrive at once. A probe posted to the GUI
// thread every 5 ms measures how long the thread kept it waiting (its stalls); the GUI
// thread's CPU time over the run is what drawing costs at its coalesced redraw rate.
// Runs the slot list and the bench view, with the slots reporting flat out and at a
// fixed rate, and reports RSS with sixteen idle slots. The figures include what other
// processes on the machine take: the share of time the GUI thread waited for a processor
// tells how much of a stall was the machine's.
// Usage: gui_console [seconds per run, default 10]

#include <stdlib.h>
#include <time.h>

#include <QApplication>
#include <QEvent>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "console/ConsoleController.h"
#include "platform/Clock.h"
#include "qt/MainWindow.h"
#include "slots/SlotDisplay.h"
#include "station/Station.h"
#include "station/StationLoop.h"
#include "support/FixedOptions.h"

namespace {

using namespace quorvel;
using Steady = std::chrono::steady_clock;

double ThreadCpuMs() {
    timespec t{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

// Time the calling thread has waited for a processor while runnable, in ms: stalls that
// a loaded machine causes rather than the window.
double RunQueueWaitMs() {
    std::ifstream stat("/proc/thread-self/schedstat");
    double onCpu = 0, waiting = 0;
    stat >> onCpu >> waiting;
    return waiting / 1e6;
}

double RssMiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    return 0;
}

// Measures the GUI thread's CPU time spent painting: the backing store's updates and
// the paint events they deliver (counted once when nested).
class TimedApplication : public QApplication {
public:
    using QApplication::QApplication;
    double drawCpuMs = 0;
    bool notify(QObject* receiver, QEvent* e) override {
        const bool drawing = e->type() == QEvent::UpdateRequest || e->type() == QEvent::Paint;
        if (!drawing || depth_ > 0) return QApplication::notify(receiver, e);
        ++depth_;
        const double t0 = ThreadCpuMs();
        const bool r = QApplication::notify(receiver, e);
        drawCpuMs += ThreadCpuMs() - t0;
        --depth_;
        return r;
    }

private:
    int depth_ = 0;
};

// Counts the paints of one widget.
class PaintCounter : public QObject {
public:
    std::atomic<int> paints{0};
    bool eventFilter(QObject*, QEvent* e) override {
        if (e->type() == QEvent::Paint) ++paints;
        return false;
    }
};

struct Figures {
    double maxStallMs = 0, p99StallMs = 0, drawCpuPercent = 0, guiCpuPercent = 0, redrawsPerSecond = 0;
    long progressMessages = 0;
    double worstAtSeconds = 0;   // when the longest stall began, from the start of the run
    double runQueuePercent = 0;  // of the run's time, the GUI thread waited for a processor
};

// `pauseUs`: each slot's pause between two progress reports; 0 sends as fast as the
// station thread takes them.
Figures Load(TimedApplication& app, app::Station& station, app::StationLoop& loop,
             std::vector<std::unique_ptr<engine::SlotDisplay>>& displays, QWidget& painted, double seconds,
             int pauseUs) {
    std::atomic<bool> stop{false};
    std::atomic<long> messages{0};
    std::mutex probeMutex;
    std::vector<double> waits;
    double worstAt = 0;
    const auto start = Steady::now();

    // Sixteen workers, each sending its slot's progress as fast as the station thread handles it.
    std::vector<std::thread> workers;
    for (int slot = 0; slot < app::kSlotCount; ++slot) {
        workers.emplace_back([&, slot] {
            const std::string status = "Downloading...";
            for (std::uint32_t done = 0; !stop; done = (done + 65536) % (10u << 20)) {
                loop.Call([&] {
                    auto& d = *displays[static_cast<std::size_t>(slot)];
                    d.Show(app::SlotStatus{slot, status});
                    d.Show(app::SlotBar{slot, app::BarValue::TOTAL, 10u << 20});
                    d.Show(app::SlotBar{slot, app::BarValue::DONE, done});
                    d.Show(app::SlotBar{slot, app::BarValue::PERCENT, done * 100 / (10u << 20)});
                });
                messages += 4;
                if (pauseUs > 0) std::this_thread::sleep_for(std::chrono::microseconds(pauseUs));
            }
        });
    }
    // Bursts: every 2 s all sixteen phones finish, and the next sixteen start. The
    // timers' ticks write every slot's elapsed time once a second.
    std::thread bursts([&] {
        for (int tick = 1; !stop; ++tick) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            loop.Call([&] {
                for (int slot = 0; slot < app::kSlotCount; ++slot) {
                    auto& d = *displays[static_cast<std::size_t>(slot)];
                    if (tick % 2 == 0) {
                        d.Show(app::SlotVerdict{slot, (slot + tick) % 5 != 0});
                        station.slots.startTime[static_cast<std::size_t>(slot)] = station.clock.WallSeconds();
                        d.SetResult(slot, "Ongoing", engine::kColourBlue);
                        d.ShowCell(slot, app::COL_PROGRESS);
                    }
                    engine::ShowSlotElapsed(station, slot);
                }
            });
        }
    });
    // The probe: how long a posted call waits for the GUI thread.
    std::thread probe([&] {
        while (!stop) {
            const auto sent = Steady::now();
            QMetaObject::invokeMethod(&app, [&, sent] {
                const double ms = std::chrono::duration<double, std::milli>(Steady::now() - sent).count();
                std::lock_guard g(probeMutex);
                if (waits.empty() || ms > *std::max_element(waits.begin(), waits.end()))
                    worstAt = std::chrono::duration<double>(sent - start).count();
                waits.push_back(ms);
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });

    PaintCounter counter;
    painted.installEventFilter(&counter);
    const double cpu0 = ThreadCpuMs(), draw0 = app.drawCpuMs, queued0 = RunQueueWaitMs();
    const auto t0 = Steady::now();
    QTimer::singleShot(static_cast<int>(seconds * 1000), &app, [&] { QApplication::exit(0); });
    QApplication::exec();
    const double wall = std::chrono::duration<double, std::milli>(Steady::now() - t0).count();
    const double cpu = ThreadCpuMs() - cpu0, draw = app.drawCpuMs - draw0, queued = RunQueueWaitMs() - queued0;
    stop = true;
    for (auto& w : workers) w.join();
    bursts.join();
    probe.join();
    QCoreApplication::processEvents();
    painted.removeEventFilter(&counter);

    Figures f;
    std::lock_guard g(probeMutex);
    std::sort(waits.begin(), waits.end());
    if (!waits.empty()) {
        f.maxStallMs = waits.back();
        f.p99StallMs = waits[std::min(waits.size() - 1, waits.size() * 99 / 100)];
    }
    f.drawCpuPercent = 100.0 * draw / wall;
    f.guiCpuPercent = 100.0 * cpu / wall;
    f.runQueuePercent = 100.0 * queued / wall;
    f.redrawsPerSecond = counter.paints * 1000.0 / wall;
    f.progressMessages = messages;
    f.worstAtSeconds = worstAt;
    return f;
}

void Report(const char* view, const Figures& f, double seconds) {
    std::printf(
        "%-24s longest stall %5.1f ms (target <= 50), p99 %5.1f ms, at %.1f s; drawing %4.1f %% of a core "
        "(target <= 5), GUI thread in all %4.1f %%, waiting for a processor %4.1f %%; %4.1f redraws/s; "
        "%.0f progress messages/s\n",
        view, f.maxStallMs, f.p99StallMs, f.worstAtSeconds, f.drawCpuPercent, f.guiCpuPercent, f.runQueuePercent,
        f.redrawsPerSecond, static_cast<double>(f.progressMessages) / seconds);
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);
    TimedApplication app(argc, argv);

    std::string pattern = (std::filesystem::temp_directory_path() / "quorvel-gui-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) return 1;
    const std::string dir = pattern + "/";
    std::filesystem::create_directories(dir + "Config");
    std::ofstream(dir + "Config/CommonSetting.ini") << "[COMMON]\nMac=00-11-22-33-44-55\n[BENCH]\nSimulated=0\n";

    platform::SystemClock clock;
    app::HeadlessConsoleUi ui;
    app::Station station(test::FixedOptions(dir), clock);
    app::StationLoop loop(clock);
    console::ConsoleController controller(station, loop, ui);
    loop.SetHandler(&controller);
    loop.Start();
    bool ready = false;
    loop.Call([&] { ready = controller.OnInitDialog(); });
    if (!ready) return 1;

    std::vector<std::unique_ptr<engine::SlotDisplay>> displays;
    for (int slot = 0; slot < app::kSlotCount; ++slot) {
        char number[8];
        std::snprintf(number, sizeof number, "%02d", slot + 1);
        const int row = station.slotList.InsertRow(number);
        station.slotList.SetCellText(row, app::COL_DEVICE,
                                     "MTK PreLoader USB VCOM (COM" + std::to_string(10 + slot) + ")");
        station.slotList.SetCellIcon(row, app::COL_DEVICE, 2);
        station.slotList.SetCellText(row, app::COL_BINDED, "ALL_BINDED");
        displays.push_back(std::make_unique<engine::SlotDisplay>(station));
    }

    console::MainWindow window(station, loop, controller);
    window.resize(1366, 768);
    window.Refresh();
    window.show();
    QTimer::singleShot(1500, &app, [] { QApplication::exit(0); });
    QApplication::exec();
    std::printf("RSS with 16 idle slots: %.1f MiB (target <= 80)\n", RssMiB());

    // Flat out, and at 250 reports a second per slot (a busy engine sends a few dozen).
    for (const auto& [name, pauseUs] : {std::pair{"flat out", 0}, std::pair{"250/s per slot", 4000}}) {
        loop.Call([&] { controller.SetBenchView(false); });
        QCoreApplication::processEvents();
        Report((std::string("list, ") + name).c_str(),
               Load(app, station, loop, displays, *window.SlotList().viewport(), seconds, pauseUs), seconds);
        loop.Call([&] { controller.SetBenchView(true); });
        QCoreApplication::processEvents();
        Report((std::string("bench view, ") + name).c_str(),
               Load(app, station, loop, displays, window.Bench(), seconds, pauseUs), seconds);
    }
    std::printf("RSS after the runs: %.1f MiB\n", RssMiB());

    loop.Stop();
    std::filesystem::remove_all(dir);
    return 0;
}
