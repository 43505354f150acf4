#include "support/StationProcess.h"

#include <chrono>
#include <thread>

#include "station/Messages.h"
#include "support/StationFixture.h"

namespace quorvel::test {

StationProcess::StationProcess(const TempDir& dir, platform::SysPaths paths, double speed) : clock(speed) {
    station = std::make_unique<app::Station>(FixedOptions(dir.Path()), clock);
    controller = std::make_unique<console::ConsoleController>(*station, loop, ui);
    loop.SetHandler(controller.get());
    rig = std::make_unique<console::StationRig>(*station, loop, *controller, std::move(paths));
    run = &rig->Run();
    loop.Start();
}

StationProcess::~StationProcess() {
    rig->Close(loop, ready);
}

bool StationProcess::Init() {
    loop.Call([&] { ready = controller->OnInitDialog(); });
    return ready;
}

void StationProcess::PressStartStop() {
    loop.Send(app::Command{app::CommandId::START_STOP});
}

console::DownloadButtonStatus StationProcess::Button() {
    auto b = console::DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_INIT;
    loop.Call([&] { b = controller->ButtonStatus(); });
    return b;
}

bool StationProcess::Await(const std::function<bool()>& done) {
    for (int i = 0; i < 3000; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

}  // namespace quorvel::test
