#pragma once
// One station process, headless: everything main() builds (station, station loop,
// console, rig), on a given station folder, in time running four times as fast.
// The test's thread plays the operator.

#include <memory>

#include "console/ConsoleController.h"
#include "console/StationRig.h"
#include "platform/Clock.h"
#include "platform/SysPaths.h"
#include "sim/SimBench.h"
#include "station/Station.h"
#include "station/StationLoop.h"
#include "support/TempDir.h"

namespace quorvel::test {

struct StationProcess {
    // `paths`: the system roots of a real bench ([BENCH] Simulated=0); `speed`: how
    // much faster than real time the station's clock runs.
    explicit StationProcess(const TempDir& dir, platform::SysPaths paths = {}, double speed = 4.0);
    ~StationProcess();  // closes as the window's close does
    bool Init();        // OnInitDialog on the station thread
    sim::SimBench& Bench() { return *rig->Bench(); }
    void PressStartStop();

    platform::ScaledClock clock;
    app::HeadlessConsoleUi ui;
    std::unique_ptr<app::Station> station;
    app::StationLoop loop{clock};
    std::unique_ptr<console::ConsoleController> controller;
    std::unique_ptr<console::StationRig> rig;
    bool ready = false;
};

}  // namespace quorvel::test
