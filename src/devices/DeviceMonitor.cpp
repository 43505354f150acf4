#include "devices/DeviceMonitor.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>

#include "devices/DeviceText.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::devices {

MonitorChoice MonitorChoiceOf(int monitorService, const std::string& configuredService) {
    switch (monitorService) {
        case 1: return {"usbser", 0};
        case 2: return {"sprdvcom", 2};
        case 3: return {"wdm_usb", 3};
        case 4: return {configuredService, 0};
        default: return {"wdm_usb", 0};
    }
}

std::string EventText(const std::string& text, std::size_t chars) {
    return text.substr(0, std::min(chars, text.find('\0')));
}

app::EventKind EventKindOf(int contextKind) {
    if (contextKind == 1 || contextKind == 2) return app::EventKind::SPRD;
    if (contextKind == 3) return app::EventKind::CFG;
    return app::EventKind::MTK;
}

ListDiff DiffLists(const std::vector<std::string>& previous, const std::vector<std::string>& current) {
    ListDiff d;
    auto in = [](const std::vector<std::string>& list, const std::string& id) {
        return std::find(list.begin(), list.end(), id) != list.end();
    };
    for (const auto& id : previous)
        if (!in(current, id)) d.removed.push_back(id);
    for (const auto& id : current)
        if (!in(previous, id)) d.arrived.push_back(id);
    return d;
}

std::string LocationIn(const PortTable& table, const std::string& instanceId) {
    const std::string key = LookupKey(instanceId);
    for (std::size_t i = 0; i < table.instanceIds.size(); ++i)
        if (LookupKey(table.instanceIds[i]).find(key) != std::string::npos) return table.locations[i];
    return "";
}

DeviceMonitor::DeviceMonitor(app::Station& station, DeviceBackend& backend, app::MessageWindow& console)
    : station_(station), backend_(backend), console_(console) {}

DeviceMonitor::~DeviceMonitor() {
    Retire();
    for (auto& w : retired_)
        if (w->thread.joinable()) w->thread.join();
}

std::string DeviceMonitor::SelectMonitorService() {
    const auto kind = station_.package.kind;
    if (kind == app::PackageKind::MtkScatter) {
        const bool wdm = backend_.ServiceExists("wdm_usb");
        const bool ser = backend_.ServiceExists("usbser");
        if (wdm && !ser) {
            monitorService_ = 0;
        } else if (ser && !wdm) {
            monitorService_ = 1;
        } else if (wdm && ser) {
            if (backend_.ServiceDevices("wdm_usb"))
                monitorService_ = 0;
            else
                monitorService_ = backend_.ServiceDevices("usbser") ? 1 : 0;
        } else {
            for (const auto& name : station_.settings.ServiceNameList) {
                if (backend_.ServiceExists(name)) {
                    monitorService_ = 4;
                    configuredService_ = name;
                    break;
                }
            }
        }
    } else if (kind == app::PackageKind::SprdPac) {
        if (!backend_.ServiceExists("sprdvcom")) return app::texts::kSprdServiceMissing;
        monitorService_ = 2;
    } else if (kind == app::PackageKind::MtkCfg) {
        monitorService_ = backend_.ServiceExists("wdm_usb") ? 3 : 1;
    }
    if (station_.settings.EnableDebug) {
        char line[64];
        std::snprintf(line, sizeof line, app::texts::kServiceNameLog, monitorService_);
        station_.settingsStore.UiLog(line);
    }
    return {};
}

void DeviceMonitor::Start() {
    Retire();
    JoinEnded();
    current_ = std::make_unique<Watch>();
    Watch& w = *current_;
    w.thread = std::thread([this, &w, choice = MonitorChoiceOf(monitorService_, configuredService_)] {
        Run(w, choice);
        w.ended = true;
    });
}

void DeviceMonitor::Retire() {
    if (!current_) return;
    current_->retired = true;
    backend_.Changes().Interrupt();
    retired_.push_back(std::move(current_));
}

void DeviceMonitor::JoinEnded() {
    for (auto it = retired_.begin(); it != retired_.end();) {
        if ((*it)->ended) {
            (*it)->thread.join();
            it = retired_.erase(it);
        } else {
            ++it;
        }
    }
}

int DeviceMonitor::LiveWatches() const {
    int n = current_ && !current_->ended ? 1 : 0;
    for (const auto& w : retired_) n += w->ended ? 0 : 1;
    return n;
}

void DeviceMonitor::Run(Watch& w, const MonitorChoice& choice) {
    std::vector<std::string> previous;                // what has been reported as present
    std::map<std::string, platform::Millis> waiting;  // arrived, serial port not yet there: until when
    platform::Millis again = platform::kForever;      // a switched phone to look at then
    ChangeSignal& changes = backend_.Changes();
    platform::Clock& clock = station_.clock;
    for (;;) {
        if (!station_.stationRunning || w.retired) return;
        platform::Millis until = platform::kForever;
        for (const auto& [id, due] : waiting) until = until == platform::kForever ? due : std::min(until, due);
        if (again != platform::kForever) until = until == platform::kForever ? again : std::min(until, again);
        const std::uint64_t seen = changes.Wait(
            clock, consumed_.load(), [&] { return w.retired.load() || switchedNew_.load(); }, until);
        if (w.retired) return;
        switchedNew_ = false;
        consumed_ = seen;
        auto current = backend_.ServiceDevices(choice.service);
        if (!current) {  // no device list (yet): wait for the service to get one
            waiting.clear();
            continue;
        }
        const ListDiff diff = DiffLists(previous, *current);
        for (const auto& id : diff.removed) {
            if (w.retired) return;
            SendEvent(id, false, choice);
        }
        // A phone that left while its port was awaited was never reported: nothing to say.
        for (auto it = waiting.begin(); it != waiting.end();)
            it = std::find(current->begin(), current->end(), it->first) == current->end() ? waiting.erase(it)
                                                                                          : std::next(it);
        const platform::Millis now = clock.Now();
        for (const auto& id : diff.arrived) {
            if (w.retired) return;
            if (!NamesSerialPort(backend_.FriendlyNameOf(id).value_or(""))) {
                const auto due = waiting.try_emplace(id, now + kSerialPortWaitMs).first->second;
                if (now < due) continue;  // reported with its port once the port is there
            }
            waiting.erase(id);
            SendEvent(id, true, choice);
        }
        again = Reannounce(w, *current, choice);
        if (w.retired) return;
        previous.clear();
        for (auto& id : *current)
            if (!waiting.count(id)) previous.push_back(std::move(id));
    }
}

void DeviceMonitor::PhaseOneSwitched(unsigned long port) {
    if (port == 0 || port > 256) return;
    const platform::Millis now = station_.clock.Now();
    {
        std::lock_guard g(switchedMutex_);
        switched_.push_back({static_cast<int>(port), now + kReannounceMs, now + kReannounceGiveUpMs});
    }
    switchedNew_ = true;
    backend_.Changes().Interrupt();
}

platform::Millis DeviceMonitor::Reannounce(Watch& w, const std::vector<std::string>& present,
                                           const MonitorChoice& choice) {
    const platform::Millis now = station_.clock.Now();
    std::vector<std::string> announce;
    platform::Millis next = platform::kForever;
    {
        std::lock_guard g(switchedMutex_);
        for (auto it = switched_.begin(); it != switched_.end();) {
            if (now >= it->giveUp) {
                it = switched_.erase(it);
                continue;
            }
            platform::Millis at = it->due;
            if (now >= it->due) {
                std::string id;
                for (const auto& p : present)
                    if (ComNumberOfName(backend_.FriendlyNameOf(p).value_or("")) == it->port) id = p;
                // Away (re-enumerating): its return is an arrival of its own.
                at = it->giveUp;
                if (!id.empty()) {
                    const std::string location = LocationIn(backend_.BuildPortTable(choice.service), id);
                    bool busy = false;
                    for (int i = 0; i < app::kSlotCount; ++i)
                        busy = busy || (!location.empty() && station_.bindings.HsLocation(i) == location &&
                                        station_.bindings.State(i) == app::BindState::Busy);
                    if (!busy) {
                        announce.push_back(id);
                        it = switched_.erase(it);
                        continue;
                    }
                    // Its worker still polls the first phase, which would drop the arrival.
                    at = now + kReannounceMs / 4;
                }
            }
            next = next == platform::kForever ? at : std::min(next, at);
            ++it;
        }
    }
    for (const auto& id : announce) {
        if (w.retired) break;
        SendEvent(id, true, choice);
    }
    return next;
}

void DeviceMonitor::SendEvent(const std::string& instanceId, bool arrived, const MonitorChoice& choice) {
    // The station reads names and locations as the engines' records hold them, so
    // they are cut to the same lengths here.
    app::DeviceEvent event;
    event.instanceId = EventText(instanceId, kEventIdChars);
    event.arrived = arrived;
    event.location = EventText(LocationIn(backend_.BuildPortTable(choice.service), instanceId), kEventLocationChars);
    const auto name = backend_.FriendlyNameOf(instanceId);
    event.friendlyName = EventText(name ? *name : instanceId, kEventNameChars);
    event.kind = EventKindOf(choice.contextKind);
    if (arrived) {
        // The phone is announced: a switch of its port awaits nothing more.
        const int port = ComNumberOfName(event.friendlyName);
        std::lock_guard g(switchedMutex_);
        std::erase_if(switched_, [port](const Switched& s) { return s.port == port; });
    }
    console_.Send(std::move(event));
}

}  // namespace quorvel::devices
