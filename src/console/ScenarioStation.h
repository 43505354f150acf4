#pragma once
// A whole station, headless, that a bench scenario plays against: what main() builds
// (station, station loop, console, rig) on a station folder, started at the first
// step that needs it and closed as the window's close does. A restart closes it and
// builds it again from its files, on the same clock. On a real bench ([BENCH]
// Simulated=0) the scenario plugs its phones into a device tree the caller provides,
// which the station reads through its udev backend, and the in-process engines serve them.
// Threads: one caller thread (the scenario's); reads of the station go through
// the station loop.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "console/ConsoleController.h"
#include "console/ConsoleUi.h"
#include "console/StationRig.h"
#include "platform/Clock.h"
#include "platform/SysPaths.h"
#include "sim/Scenario.h"
#include "station/Station.h"
#include "station/StationLoop.h"

namespace quorvel::console {

// A device tree of a real bench whose phones the simulated engines serve.
class DeviceTree : public sim::ScenarioBench {
public:
    // The rig of the station now up (its engines' registry, its watch); null before
    // that station closes. Called on the scenario's thread.
    virtual void Serve(StationRig* rig) = 0;
};

class ScenarioStation final : public sim::ScenarioHost {
public:
    // `options` makes the options of each start; its exeDir is the station folder.
    // `tree` and `paths` are the real bench's, for a station with [BENCH] Simulated=0.
    ScenarioStation(platform::Clock& clock, std::function<app::StationOptions()> options, DeviceTree* tree = nullptr,
                    platform::SysPaths paths = {});
    ~ScenarioStation() override;

    // Starts the station unless it is up; false (and why) when its start-up failed.
    bool Up(std::string& why) override;
    sim::ScenarioBench* Bench() override;
    void Press() override;
    void Menu(const std::string& item, int row) override;
    bool Running() override;
    std::string Observe(const std::vector<std::string>& subject) override;
    bool Set(const std::string& section, const std::string& key, const std::string& value, std::string& why) override;
    bool Restart(std::string& why) override;
    bool WriteFile(const std::string& file, const std::string& text, std::string& why) override;

    // The station process now; null before the first start.
    struct Process;
    Process* Now() { return process_.get(); }
    // Runs `read` on the station thread with the process; nothing when none is up.
    void Read(const std::function<void(Process&)>& read);

private:
    struct Setting {
        std::string section, key, value;
    };
    bool Write(const Setting& setting, std::string& why);
    void Close();  // the station process, if one is up
    platform::Clock& clock_;
    std::function<app::StationOptions()> options_;
    DeviceTree* tree_;
    const platform::SysPaths paths_;
    std::unique_ptr<Process> process_;
    std::vector<Setting> pending_;  // for the next start-up
};

struct ScenarioStation::Process {
    Process(platform::Clock& clock, app::StationOptions options, platform::SysPaths paths);
    ~Process();
    app::HeadlessConsoleUi ui;
    app::Station station;
    app::StationLoop loop;
    ConsoleController controller;
    StationRig rig;
    bool ready = false;
};

}  // namespace quorvel::console
