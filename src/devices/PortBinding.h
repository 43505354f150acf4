#pragma once
// Ties physical sockets to download slots: classifies each device event, finds or
// assigns the slot, records the binding, hands the phone to the slot's worker and
// saves the table after each attempt.
//
// Station thread only (message 6024 and the auto-stop check). Its sleeps block the
// station thread and the monitor that waits for the event to be handled.
//
// A slot for which the download manager has no worker is never chosen for a new
// binding (it could not serve the phone, and the socket would stay tied to nothing);
// a stored binding to such a slot is kept, but a phone on its socket is not handed
// anywhere and the slot's state does not change.

#include <string>

#include "devices/ComProbe.h"
#include "devices/DeviceMonitor.h"
#include "engines/EngineRecords.h"
#include "station/Messages.h"

namespace quorvel::app {
class Station;
}
namespace quorvel::engine {
class DownloadManager;
enum class HandOver;
}  // namespace quorvel::engine

namespace quorvel::devices {

class PortBinding {
public:
    PortBinding(app::Station& station, engine::DownloadManager& manager, ComProbe& probe, app::MessageWindow& console)
        : station_(station), manager_(manager), probe_(probe), console_(console) {}

    // Message 6024; returns 0.
    platform::LResult OnDeviceEvent(const app::DeviceEvent& event);

    bool HasBinded_MTK(const app::DeviceInfo& info);
    bool Bind_MTKDev_LS(const app::DeviceInfo& info);
    bool Bind_MTKDev_HS(const app::DeviceInfo& info);
    // The DA_BINDED slot a DA phone on an unbound HS socket belongs to, or -1.
    int SlotAwaitingDa(const std::string& location);
    bool HasBinded_SPRD(const app::DeviceInfo& info);
    bool Bind_SPRDDev(const app::DeviceInfo& info);
    // False when slot i has no worker or the worker did not take the device.
    bool DispatchToSlot(int i, const app::DeviceInfo& info, engine::HandOver how);
    // The first worker holding the gone device (same name, same instance ID) is told.
    bool SignalRemoval(const app::DeviceInfo& gone);
    void AutoStopCheck();

    static app::DeviceInfo InfoOf(const app::DeviceEvent& event);

private:
    void OnMtkEvent(const app::DeviceEvent& event);
    void OnSerialEvent(const app::DeviceEvent& event, bool portCheck);
    bool HasWorker(int i);
    void ForgetPortElsewhere(int slot, const app::DeviceInfo& info);
    void Log(const std::string& text);

    app::Station& station_;
    engine::DownloadManager& manager_;
    ComProbe& probe_;
    app::MessageWindow& console_;
};

}  // namespace quorvel::devices
