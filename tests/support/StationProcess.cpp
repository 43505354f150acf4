#include "support/StationProcess.h"

#include <chrono>
#include <thread>

#include "app/Messages.h"

namespace quorvel::test {

StationProcess::StationProcess(const TempDir& dir, platform::SysPaths paths, double speed) : clock(speed) {
    app::StationOptions options;
    options.exeDir = dir.Path();
    options.systemLanguage = [] { return std::uint16_t{1033}; };
    options.machineStamp = [] { return std::string("00-11-22-33-44-55"); };
    station = std::make_unique<app::Station>(std::move(options), clock, ui);
    controller = std::make_unique<console::ConsoleController>(*station, loop);
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
    loop.Send(app::WM_COMMAND, app::CMD_START_STOP, 0);
}

int StationProcess::Button() {
    int b = -1;
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
