#include "support/StationProcess.h"

#include "station/Messages.h"
#include "support/FixedOptions.h"

namespace quorvel::test {

StationProcess::StationProcess(const TempDir& dir, platform::SysPaths paths, double speed) : clock(speed) {
    station = std::make_unique<app::Station>(FixedOptions(dir.Path()), clock);
    controller = std::make_unique<console::ConsoleController>(*station, loop, ui);
    loop.SetHandler(controller.get());
    rig = std::make_unique<console::StationRig>(*station, loop, *controller, std::move(paths));
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

}  // namespace quorvel::test
