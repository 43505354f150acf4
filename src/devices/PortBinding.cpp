#include "devices/PortBinding.h"

#include <strings.h>

#include "devices/DeviceText.h"
#include "slots/DownloadManager.h"
#include "station/Messages.h"
#include "station/Station.h"

namespace quorvel::devices {

using app::BindingTable;
using app::kSlotCount;

app::DeviceInfo PortBinding::InfoOf(const app::DeviceEvent& r) {
    app::DeviceInfo info{};
    info.type = r.kind;
    info.friendlyName = r.friendlyName;
    info.location = r.location;
    info.instanceId = r.instanceId;
    return info;
}

void PortBinding::Log(const std::string& text) {
    if (station_.settings.EnableDebug) station_.settingsStore.UiLog(text);
}

bool PortBinding::HasWorker(int i) {
    return manager_.WorkerAt(i) != nullptr;
}

platform::LResult PortBinding::OnDeviceEvent(const app::DeviceEvent& event) {
    // A departure: an arrival without a location is dropped before any probing. The
    // monitor sends one when the device left before its socket was found (a phone
    // switching modes); bound by its empty location it would start a second job for
    // a phone its own slot already serves.
    if (event.arrived && event.location.empty()) {
        Log("no location: " + event.instanceId);
        return 0;
    }
    switch (event.kind) {
        case app::EventKind::MTK: OnMtkEvent(event); break;
        case app::EventKind::SPRD: OnSerialEvent(event, false); break;
        case app::EventKind::CFG: OnSerialEvent(event, true); break;
        default: break;
    }
    return 0;
}

void PortBinding::OnMtkEvent(const app::DeviceEvent& event) {
    const app::DeviceInfo info = InfoOf(event);
    const PidClass c = ClassOf(info.instanceId);
    Log(info.friendlyName);
    if (c != PidClass::OTHER) {
        if (event.arrived) {
            probe_.Probe(info.friendlyName);  // only lets the port settle
            if (!HasBinded_MTK(info)) {
                if (c == PidClass::BROM) {
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
            SignalRemoval(info);
            AutoStopCheck();
        }
    }
    station_.clock.Sleep(50);
}

void PortBinding::OnSerialEvent(const app::DeviceEvent& event, bool portCheck) {
    const app::DeviceInfo info = InfoOf(event);
    Log(info.friendlyName);
    if (event.arrived) {
        const bool ready = probe_.Probe(info.friendlyName);
        if (portCheck && !ready) return;
        if (!HasBinded_SPRD(info)) {
            Bind_SPRDDev(info);
            Log("Bind_SPRDDev run");
            station_.settingsStore.SaveBindings();
        }
        Log("HasBinded_SPRD run");
    } else {
        if (portCheck) station_.clock.Sleep(500);
        SignalRemoval(info);
    }
    station_.clock.Sleep(50);
}

bool PortBinding::DispatchToSlot(int i, const app::DeviceInfo& info, engine::HandOver how) {
    engine::DownloadWorker* worker = manager_.WorkerAt(i);
    if (!worker) return false;
    worker->SetThreadIndex(i);
    if (!worker->AcceptDevice(info, how)) return false;
    ForgetPortElsewhere(i, info);
    return true;
}

void PortBinding::ForgetPortElsewhere(int slot, const app::DeviceInfo& info) {
    // Port numbers are reused lowest-free: a slot whose phone has gone must not keep
    // the number that now belongs to this phone, or SPRD messages keyed by it
    // would reach that slot.
    const int number = ComNumberOfName(info.friendlyName);
    if (number == 0) return;
    const std::string port = ComTag(static_cast<unsigned long>(number));
    for (int i = 0; i < kSlotCount; ++i) {
        if (i == slot) continue;
        std::string com = station_.bindings.ComName(i);
        const auto at = com.find(port);
        if (at == std::string::npos) continue;
        com.erase(at, port.size());
        while (!com.empty() && com.back() == ' ') com.pop_back();
        station_.bindings.SetComName(i, com);
    }
}

bool PortBinding::HasBinded_MTK(const app::DeviceInfo& info) {
    const std::string& location = info.location;
    const PidClass c = ClassOf(info.instanceId);
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i) {
        const auto e = t.Get(i);
        const bool match = (e.hs == location && (c == PidClass::PRELOADER || c == PidClass::DA)) ||
                           (e.ls == location && c == PidClass::BROM);
        if (!match) continue;
        if (e.state == app::BindState::Busy) return false;
        if (c == PidClass::DA && e.state == app::BindState::PreloaderBinded) continue;
        if (!HasWorker(i)) return false;
        // The worker marks the slot BUSY for a DA phone, or leaves it when that phone's job has ended.
        DispatchToSlot(i, info, c == PidClass::DA ? engine::HandOver::DA_MODE : engine::HandOver::PLAIN);
        return true;
    }
    station_.clock.Sleep(10);
    return false;
}

// The bind operations event the binding before the hand-over: from then on the
// worker owns the slot's state, and its job's BUSY is never written over.

bool PortBinding::Bind_MTKDev_LS(const app::DeviceInfo& info) {
    const std::string& location = info.location;
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i)
        if (t.LsLocation(i) == location) return false;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.State(i) != app::BindState::Idle || !HasWorker(i)) continue;
        engine::DownloadWorker* worker = manager_.WorkerAt(i);
        worker->SetThreadIndex(i);
        // Spreads the BROM handshakes of phones plugged together over time.
        station_.clock.Sleep(platform::Millis{100} * i);
        t.SetLsLocation(i, location);
        t.SetState(i, app::BindState::BromBinded);
        worker->AcceptDevice(info);
        ForgetPortElsewhere(i, info);
        return true;
    }
    return false;
}

bool PortBinding::Bind_MTKDev_HS(const app::DeviceInfo& info) {
    const std::string& location = info.location;
    const PidClass c = ClassOf(info.instanceId);
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.HsLocation(i) != location) continue;
        if (c != PidClass::DA || t.State(i) != app::BindState::PreloaderBinded) return false;
    }
    if (c == PidClass::DA) {
        const int i = SlotAwaitingDa(location);
        if (i < 0) return false;
        // The worker takes it (BUSY) only as part of the job under way.
        if (!DispatchToSlot(i, info, engine::HandOver::DA_MODE)) return false;
        t.SetHsLocation(i, location);
        return true;
    }
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.State(i) != app::BindState::Idle || !HasWorker(i)) continue;
        t.SetHsLocation(i, location);
        t.SetState(i, app::BindState::PreloaderBinded);
        DispatchToSlot(i, info, engine::HandOver::PLAIN);
        return true;
    }
    return false;
}

int PortBinding::SlotAwaitingDa(const std::string& location) {
    // With two phones switched at once, the first DA_BINDED slot by number may not be
    // this phone's, and a wrong guess is learned as the socket's HS location. Where one
    // hub serves both speeds, the slot whose phone was on this very socket in BROM mode
    // is this phone's for certain.
    BindingTable& t = station_.bindings;
    int first = -1;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.State(i) != app::BindState::DaBinded || !HasWorker(i)) continue;
        if (t.LsLocation(i) == location) return i;
        if (first < 0) first = i;
    }
    return first;
}

bool PortBinding::HasBinded_SPRD(const app::DeviceInfo& info) {
    const std::string& location = info.location;
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.HsLocation(i) != location) continue;
        if (t.State(i) == app::BindState::Busy) {
            // A new SPRD phone while the last one's job still ends (its worker looks
            // every 5 s): reported once, so the row tells the operator to plug it in again.
            engine::DownloadWorker* w = manager_.WorkerAt(i);
            if (w && info.type == app::EventKind::SPRD) w->NoteUnserved(info);
            return false;
        }
        return DispatchToSlot(i, info, engine::HandOver::BUSY);
    }
    station_.clock.Sleep(10);
    return false;
}

bool PortBinding::Bind_SPRDDev(const app::DeviceInfo& info) {
    const std::string& location = info.location;
    BindingTable& t = station_.bindings;
    for (int i = 0; i < kSlotCount; ++i)
        if (t.HsLocation(i) == location) return true;
    for (int i = 0; i < kSlotCount; ++i) {
        if (t.State(i) != app::BindState::Idle || !HasWorker(i)) continue;
        t.SetHsLocation(i, location);
        t.SetState(i, app::BindState::AllBinded);
        DispatchToSlot(i, info, engine::HandOver::PLAIN);
        return true;
    }
    return false;
}

bool PortBinding::SignalRemoval(const app::DeviceInfo& gone) {
    // Matched by name as always, and also by instance ID where both are known: the
    // ID names the socket, so a slot still holding a gone phone's name (a reused port
    // number on another socket) cannot take this phone's removal.
    const std::string& name = gone.friendlyName;
    const std::string& id = gone.instanceId;
    for (int i = 0; engine::DownloadWorker* w = manager_.WorkerAt(i); ++i) {
        const app::DeviceInfo held = w->Device();
        if (strcasecmp(held.friendlyName.c_str(), name.c_str()) != 0) continue;
        const std::string& heldId = held.instanceId;
        if (!id.empty() && !heldId.empty() && heldId != id) continue;
        w->NotifyDevice(engine::NOTIFY_REMOVED, "");
        return true;
    }
    return false;
}

void PortBinding::AutoStopCheck() {
    int idle = 0;
    for (int i = 0; i < kSlotCount; ++i) {
        const auto s = station_.bindings.State(i);
        if (s != app::BindState::Busy && s != app::BindState::DaBinded) ++idle;
    }
    if (idle == kSlotCount && station_.stationRunning) {
        station_.clock.Sleep(1000);
        console_.Send(app::Command{app::CommandId::START_STOP, true});
    }
}

}  // namespace quorvel::devices
