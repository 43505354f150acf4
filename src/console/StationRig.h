#pragma once
// Everything a station runs on besides its window: the device backend and the
// engines, the download manager and the run logic. Made before OnInitDialog; the
// device backend is chosen by the settings ([BENCH] Simulated) at its first use,
// which is BuildSlots, after the settings have been loaded. The engines are the
// simulated ones unless [ENGINES] names an engine program for a platform.
// Threads: made and destroyed on one thread while the station loop does not run
// handlers of it (before Start, after Stop); the backend itself is thread-safe.

#include <memory>
#include <mutex>

#include "console/ProgramEngineFactory.h"
#include "console/StationRun.h"
#include "platform/SysPaths.h"
#include "sim/SimBench.h"
#include "sim/SimEngines.h"
#include "station/Station.h"

namespace quorvel::console {

class ConsoleController;

class StationRig {
public:
    // `paths`: the system roots a real bench is read from (tests point them elsewhere).
    StationRig(app::Station& station, app::StationLoop& loop, ConsoleController& console,
               platform::SysPaths paths = {});
    ~StationRig();

    StationRun& Run() { return *run_; }
    // Ends the station as closing its window does, on the thread that runs `loop`'s
    // owner: the binding table is saved only when the console came up (a failed
    // start-up writes nothing), the loop stops, then the workers go; the jobs they cut
    // short are not counted. Nothing of the run may be used afterwards.
    void Close(app::StationLoop& loop, bool consoleReady);
    engine::SimPhoneRegistry& Phones() { return registry_; }
    // The simulated bench once chosen; null on a real bench or before the first use.
    sim::SimBench* Bench();
    // Tells the watch of a phone's switch, so that it announces an SPRD phone again that
    // stays or whose whole re-enumeration fell between two of its looks. Engine programs'
    // switches come here by themselves; a device tree serving in-process engines passes
    // theirs. Any thread.
    void TellWatchOfSwitch(const engine::SwitchEvent& e);

private:
    class ChosenBackend;
    void OnProgramSwitch(const engine::SwitchEvent& e);
    engine::ProgramContext::PortPlace DeviceOfPort(unsigned long port);
    // No switch reaches the monitor once the run is going.
    void EndRun();
    app::Station& station_;
    engine::SimPhoneRegistry registry_;
    engine::SimEngineFactory engines_;
    engine::ProgramEngineFactory programs_;  // engines_ where no program is configured
    std::unique_ptr<ChosenBackend> backend_;
    std::unique_ptr<StationRun> run_;
    std::mutex switchMutex_;
    devices::DeviceMonitor* monitor_ = nullptr;  // run_'s, while it lives
};

}  // namespace quorvel::console
