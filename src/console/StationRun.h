#pragma once
// The console's run logic: the workers built from the hub ports, the Start/Stop
// state machine with its pre-start check, and the binding of device events.
// Station thread only (console handlers); the monitor and the workers reach it
// through messages 6024 and WM_COMMAND 1019.

#include <memory>

#include "devices/ComProbe.h"
#include "devices/DeviceBackend.h"
#include "devices/DeviceMonitor.h"
#include "devices/PortBinding.h"
#include "platform/SleepInhibitor.h"
#include "report/Reporter.h"
#include "slots/DownloadManager.h"
#include "station/Station.h"
#include "station/StationLoop.h"

namespace quorvel::console {

class ConsoleController;
class MessageRouter;

class StationRun {
public:
    // Registers itself and its message router with the controller.
    StationRun(app::Station& station, app::StationLoop& loop, ConsoleController& console,
               devices::DeviceBackend& backend, engine::EngineFactory& engines);
    ~StationRun();

    void BuildSlots();
    // Starts reporting to the broker of [REPORT], when one is set; once, at start-up.
    void StartReporting();
    void StartStopClick();
    // 1 when the station may start.
    int PreStartCheck();
    platform::LResult OnDeviceEvent(const app::DeviceEvent& event) { return binding_.OnDeviceEvent(event); }

    // Held while the station runs; none by default. Set before the first Start.
    void SetSleepInhibitor(platform::SleepInhibitor* inhibitor) { inhibitor_ = inhibitor; }

    engine::DownloadManager& Manager() { return manager_; }
    devices::DeviceMonitor& Monitor() { return monitor_; }
    devices::PortBinding& Binding() { return binding_; }
    const std::vector<app::HubPortEntry>& HubPorts() const { return hubPorts_; }

private:
    bool RunPreparation(bool verify);

    app::Station& station_;
    app::StationLoop& loop_;
    ConsoleController& console_;
    devices::DeviceBackend& backend_;
    engine::EngineFactory& engines_;
    // Outlives the workers, so the lines of jobs the close cuts short still go out.
    struct Reporting {
        app::Station& station;
        std::unique_ptr<report::Reporter> reporter;
        ~Reporting();
    } reporting_{station_, nullptr};
    engine::DownloadManager manager_;
    devices::ComProbe probe_;
    devices::PortBinding binding_;
    devices::DeviceMonitor monitor_;
    std::unique_ptr<MessageRouter> router_;
    std::vector<app::HubPortEntry> hubPorts_;
    platform::SleepInhibitor* inhibitor_ = nullptr;
};

}  // namespace quorvel::console
