#include "devices/PortBinding.h"

#include "app/Messages.h"
#include "app/Station.h"
#include "devices/DeviceText.h"
#include "engine/DownloadManager.h"

namespace quorvel::devices {

using app::BindingTable;
using app::kSlotCount;

app::DeviceInfo PortBinding::InfoOf(const DeviceEventRecord& r) {
    app::DeviceInfo info{};
    info.type = r.kind;
    app::CopyField(info.friendlyName, app::FieldText(r.friendlyName));
    app::CopyField(info.location, app::FieldText(r.location));
    app::CopyField(info.instanceId, app::FieldText(r.instanceId));
    return info;
}

void PortBinding::Log(const std::string& text) {
    if (station_.settings.EnableDebug) station_.settingsStore.UiLog(text);
}

bool PortBinding::HasWorker(int i) {
    return manager_.WorkerAt(i) != nullptr;
}

platform::LResult PortBinding::OnDeviceEvent(const DeviceEventRecord& record) {
    switch (record.kind) {
        case app::EVENT_MTK: OnMtkEvent(record); break;
        case app::EVENT_SPRD: OnSerialEvent(record, false); break;
        case app::EVENT_CFG: OnSerialEvent(record, true); break;
        default: break;
    }
    return 0;
}

void PortBinding::OnMtkEvent(const DeviceEventRecord& record) {
    const app::DeviceInfo info = InfoOf(record);
    const PidClass c = ClassOf(app::FieldText(info.instanceId));
    Log(app::FieldText(info.friendlyName));
    if (c != PID_OTHER) {
        if (record.arrived) {
            probe_.Probe(app::FieldText(info.friendlyName));  // only lets the port settle
            if (!HasBinded_MTK(info)) {
                if (c == PID_BROM) {
                    Log("Bind_MTKDev_LS run ");
                    Bind_MTKDev_LS(info);
                } else {
                    Log("Bind_MTKDev_HS run");
                    Bind_MTKDev_HS(info);
                }
                station_.settingsStore.SaveBindings();
            }
            Log("HasBinded_MTK run");
        } else {
            SignalRemoval(app::FieldText(info.friendlyName));
            AutoStopCheck();
        }
    }
    station_.clock.Sleep(50);
}

void PortBinding::OnSerialEvent(const DeviceEventRecord& record, bool portCheck) {
    const app::DeviceInfo info = InfoOf(record);
    Log(app::FieldText(info.friendlyName));
    if (record.arrived) {
        const bool ready = probe_.Probe(app::FieldText(info.friendlyName));
        if (portCheck && !ready) return;
        if (!HasBinded_SPRD(info)) {
            Bind_SPRDDev(info);
            Log("Bind_SPRDDev run");
            station_.settingsStore.SaveBindings();
        }
        Log("HasBinded_SPRD run");
    } else {
        if (portCheck) station_.clock.Sleep(500);
        SignalRemoval(app::FieldText(info.friendlyName));
    }
    station_.clock.Sleep(50);
}

bool PortBinding::DispatchToSlot(int i, const app::DeviceInfo& info, engine::HandOver how) {
    engine::DownloadWorker* worker = manager_.WorkerAt(i);
    if (!worker) return false;
    worker->SetThreadIndex(i);
    return worker->AcceptDevice(info, how);
}

bool PortBinding::HasBinded_MTK(const app::DeviceInfo& info) {
    const std::string location = app::FieldText(info.location);
    const PidClass c = ClassOf(app::FieldText(info.instanceId));
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i) {
        const auto e = t.Get(i);
        const bool match =
            (e.hs == location && (c == PID_PRELOADER || c == PID_DA)) || (e.ls == location && c == PID_BROM);
        if (!match) continue;
        if (e.state == app::BIND_BUSY) return false;
        if (c == PID_DA && e.state == app::BIND_PRELOADER_BINDED) continue;
        if (!HasWorker(i)) return false;
        // The worker marks the slot BUSY for a DA phone, or leaves it when that phone's job has ended.
        DispatchToSlot(i, info, c == PID_DA ? engine::HandOver::DA_MODE : engine::HandOver::PLAIN);
        return true;
    }
    station_.clock.Sleep(10);
    return false;
}

bool PortBinding::Bind_MTKDev_LS(const app::DeviceInfo& info) {
    const std::string location = app::FieldText(info.location);
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i)
        if (t.LsLocation(i) == location) return false;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.State(i) != app::BIND_IDLE || !HasWorker(i)) continue;
        engine::DownloadWorker* worker = manager_.WorkerAt(i);
        worker->SetThreadIndex(i);
        // Spreads the BROM handshakes of phones plugged together over time.
        station_.clock.Sleep(100 * i);
        worker->AcceptDevice(info);
        t.SetLsLocation(i, location);
        t.SetState(i, app::BIND_BROM_BINDED);
        return true;
    }
    return false;
}

bool PortBinding::Bind_MTKDev_HS(const app::DeviceInfo& info) {
    const std::string location = app::FieldText(info.location);
    const PidClass c = ClassOf(app::FieldText(info.instanceId));
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.HsLocation(i) != location) continue;
        if (c != PID_DA || t.State(i) != app::BIND_PRELOADER_BINDED) return false;
    }
    const std::int32_t wanted = c == PID_DA ? app::BIND_DA_BINDED : app::BIND_IDLE;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.State(i) != wanted || !HasWorker(i)) continue;
        const bool taken = DispatchToSlot(i, info, c == PID_DA ? engine::HandOver::DA_MODE : engine::HandOver::PLAIN);
        if (!taken) return false;
        t.SetHsLocation(i, location);
        if (c != PID_DA) t.SetState(i, app::BIND_PRELOADER_BINDED);
        return true;
    }
    return false;
}

bool PortBinding::HasBinded_SPRD(const app::DeviceInfo& info) {
    const std::string location = app::FieldText(info.location);
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.HsLocation(i) != location) continue;
        if (t.State(i) == app::BIND_BUSY) return false;
        return DispatchToSlot(i, info, engine::HandOver::BUSY);
    }
    station_.clock.Sleep(10);
    return false;
}

bool PortBinding::Bind_SPRDDev(const app::DeviceInfo& info) {
    const std::string location = app::FieldText(info.location);
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i)
        if (t.HsLocation(i) == location) return true;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.State(i) != app::BIND_IDLE || !HasWorker(i)) continue;
        DispatchToSlot(i, info, engine::HandOver::PLAIN);
        t.SetHsLocation(i, location);
        t.SetState(i, app::BIND_ALL_BINDED);
        return true;
    }
    return false;
}

bool PortBinding::SignalRemoval(const std::string& friendlyName) {
    return manager_.SignalRemoval(friendlyName);
}

void PortBinding::AutoStopCheck() {
    int idle = 0;
    for (int i = 0; i < kSlotCount; ++i) {
        const auto s = station_.bindings.State(i);
        if (s != app::BIND_BUSY && s != app::BIND_DA_BINDED) ++idle;
    }
    if (idle == kSlotCount && station_.stationRunning) {
        station_.clock.Sleep(1000);
        // Posted: we are inside the station thread's own handler.
        console_.Post(app::WM_COMMAND, app::CMD_START_STOP, app::kAutoStop);
    }
}

}  // namespace quorvel::devices
