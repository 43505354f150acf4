// The station program: single-instance check, folders, then the console on the
// station thread and its window on the GUI thread until the window closes.

#include <fcntl.h>
#include <unistd.h>

#include <QApplication>
#include <QSessionManager>
#include <QSocketNotifier>
#include <atomic>
#include <csignal>

#include "console/AppStartup.h"
#include "console/ConsoleController.h"
#include "console/StationRig.h"
#include "platform/Clock.h"
#include "platform/ExeDir.h"
#include "qt/CuePlayer.h"
#include "qt/LogindInhibitor.h"
#include "qt/MainWindow.h"
#include "qt/QtConsoleUi.h"
#include "sim/AutoBench.h"
#include "station/Station.h"
#include "station/StationLoop.h"

using namespace quorvel;

namespace {
// SIGTERM (a session or service manager ending us) closes the window as a logout does:
// the jobs are recorded as interrupted and the bindings saved, and nobody is asked.
int termPipe[2] = {-1, -1};
void OnTerm(int) {
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = ::write(termPipe[1], &byte, 1);
}
}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Quorvel"));

    platform::SystemClock clock;
    console::QtConsoleUi ui(&application);
    app::StationOptions options;
    options.exeDir = platform::ExeDir();
    app::Station station(std::move(options), clock);

    auto lock = app::AppStartup::CheckSingleInstance(app::AppStartup::DefaultLockPlaces(station.ExeDir()),
                                                     station.language, ui);
    if (!lock) return 0;
    app::AppStartup::CreateFolders(station.ExeDir(), ui);

    app::StationLoop loop(clock);
    console::ConsoleController controller(station, loop, ui);
    loop.SetHandler(&controller);
    // The rig (engines, devices, workers, run logic) outlives the loop's handlers.
    auto rig = std::make_unique<console::StationRig>(station, loop, controller);
    console::MainWindow window(station, loop, controller);
    ui.SetParentWindow(&window);
    ui.SetStationLoop(&loop);
    // At a logout the session manager ends the program itself once its data is committed.
    QObject::connect(&application, &QGuiApplication::commitDataRequest, &window,
                     [&](QSessionManager&) { window.EndSession(false); });
    if (::pipe2(termPipe, O_CLOEXEC | O_NONBLOCK) == 0) {
        auto* notifier = new QSocketNotifier(termPipe[0], QSocketNotifier::Read, &window);
        QObject::connect(notifier, &QSocketNotifier::activated, &window, [&] { window.EndSession(true); });
        std::signal(SIGTERM, OnTerm);
    }
    console::LogindInhibitor sleepInhibitor;
    rig->Run().SetSleepInhibitor(&sleepInhibitor);
    std::unique_ptr<console::CuePlayer> cues;
    loop.Start();

    // Initialisation runs on the station thread while the GUI thread stays free to
    // show the message boxes it may raise.
    int exitCode = 0;
    std::atomic<bool> consoleReady{false};
    std::unique_ptr<sim::AutoBench> autoBench;
    loop.PostTask([&] {
        const bool ready = controller.OnInitDialog();
        consoleReady = ready;
        if (ready && station.settings.soundCue) {
            cues = std::make_unique<console::CuePlayer>();
            station.history.SetObserver([&](const app::JobRecord& job) {
                if (const auto cue = app::CueFor(job.result)) cues->Play(*cue);
            });
        }
        if (ready && rig->Bench() && station.settings.benchAuto) {
            // Phones of the platform of the package chosen at the moment they arrive.
            autoBench = std::make_unique<sim::AutoBench>(*rig->Bench(), clock, [&] {
                app::PackageKind kind = app::PackageKind::None;
                loop.Call([&] { kind = station.package.kind; });
                return kind == app::PackageKind::SprdPac  ? sim::PhoneKind::SPRD
                       : kind == app::PackageKind::MtkCfg ? sim::PhoneKind::CFG
                                                          : sim::PhoneKind::MTK_BROM;
            });
            autoBench->Start();
        }
        QMetaObject::invokeMethod(&application, [&, ready] {
            if (ready) {
                window.Refresh();
                window.show();
            } else {
                exitCode = 1;
                QApplication::exit(exitCode);
            }
        });
    });
    QApplication::exec();
    ui.CloseGui();  // a message box the station thread is still asking for will not come

    if (autoBench) autoBench->Stop();
    // As the console's destructor does: keep the binding table, unless start-up failed.
    rig->Close(loop, consoleReady);
    rig.reset();
    station.history.SetObserver({});
    return exitCode;
}
