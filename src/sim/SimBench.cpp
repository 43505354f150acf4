#include "sim/SimBench.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "devices/UsbTopology.h"

namespace quorvel::sim {

namespace {
constexpr unsigned kMtkVid = 0x0E8D, kSprdVid = 0x1782;

unsigned PidOf(PhoneMode mode) {
    switch (mode) {
        case PhoneMode::BROM: return 0x0003;
        case PhoneMode::PRELOADER:
        case PhoneMode::CFG: return 0x2000;
        case PhoneMode::DA: return 0x2001;
        case PhoneMode::SPRD: return 0x4D00;
        case PhoneMode::SPRD_DOWNLOAD: return 0x4D03;
    }
    return 0;
}
}  // namespace

std::optional<PhoneKind> PhoneKindOf(const std::string& w) {
    if (w == "brom") return PhoneKind::MTK_BROM;
    if (w == "preloader") return PhoneKind::MTK_PRELOADER;
    if (w == "sprd") return PhoneKind::SPRD;
    if (w == "cfg") return PhoneKind::CFG;
    return std::nullopt;
}

SimBench::SimBench(int hubs, int socketsPerHub, engine::SimPhoneRegistry& registry, platform::Clock& clock)
    : hubs_(hubs), socketsPerHub_(socketsPerHub), registry_(registry), clock_(clock) {
    returner_ = std::thread([this] { ReturnLoop(); });
    registry_.SetSwitchHook([this](const engine::SwitchEvent& e) { OnSwitch(e); });
}

SimBench::~SimBench() {
    registry_.SetSwitchHook({});
    sprdPhones_.reset();
    {
        std::lock_guard g(mutex_);
        stopping_ = true;
    }
    returnsChanged_.notify_all();
    returner_.join();
    std::lock_guard g(mutex_);
    for (auto& [socket, phone] : phones_) Release(phone);
}

void SimBench::ReturnLoop() {
    std::unique_lock lk(mutex_);
    for (;;) {
        platform::Millis next = platform::kForever;
        for (const auto& r : returns_) next = next == platform::kForever ? r.due : std::min(next, r.due);
        if (next == platform::kForever)
            clock_.WaitFor(lk, returnsChanged_, platform::kForever, [&] { return stopping_ || !returns_.empty(); });
        else
            clock_.WaitUntil(lk, returnsChanged_, next, [&] { return stopping_; });
        if (stopping_) return;
        bool changed = false;
        const platform::Millis now = clock_.Now();
        // Taken out first: a phone coming back schedules its own serial port.
        std::vector<Return> due;
        for (auto it = returns_.begin(); it != returns_.end();) {
            if (it->due > now) {
                ++it;
                continue;
            }
            due.push_back(*it);
            it = returns_.erase(it);
        }
        for (const Return& r : due) {
            auto p = phones_.find(r.socket);
            if (p == phones_.end() || p->second.plugId != r.plugId) continue;  // that phone has gone
            Phone& phone = p->second;
            if (r.enumeration != 0) {
                if (phone.present && phone.enumeration == r.enumeration && !phone.portReady) {
                    phone.portReady = true;
                    names_[InstanceIdOf(r.socket, phone)] = FriendlyNameOf(phone);
                    changed = true;
                }
            } else if (!phone.present) {
                phone.present = Enumerate(r.socket, phone, r.keepCom);
                changed = true;
            }
        }
        if (changed) {
            lk.unlock();
            changes_.Notify();
            lk.lock();
        }
    }
}

// HS sockets hang off bus 1, their full-speed (BROM) side off bus 2, as on a bench
// where boot-ROM phones enumerate on the companion controller.
std::string SimBench::HubName(int socket, bool hs) const {
    return std::string(hs ? "1-" : "2-") + std::to_string(socket / socketsPerHub_ + 1);
}

std::string SimBench::HsLocation(int socket) const {
    return HubName(socket, true) + "\\PORT" + std::to_string(socket % socketsPerHub_ + 1);
}

std::string SimBench::LsLocation(int socket) const {
    return HubName(socket, false) + "\\PORT" + std::to_string(socket % socketsPerHub_ + 1);
}

std::string SimBench::LocationOf(int socket, const Phone& phone) const {
    return phone.mode == PhoneMode::BROM ? LsLocation(socket) : HsLocation(socket);
}

std::string SimBench::InstanceIdOf(int socket, const Phone& phone, int iface) const {
    char id[128];
    const bool brom = phone.mode == PhoneMode::BROM;
    const unsigned vid = phone.kind == PhoneKind::SPRD ? kSprdVid : kMtkVid;
    std::snprintf(id, sizeof id, "USB\\VID_%04X&PID_%04X\\%s.%d:1.%d", vid, PidOf(phone.mode),
                  HubName(socket, !brom).c_str(), socket % socketsPerHub_ + 1, iface);
    return id;
}

std::string SimBench::FriendlyNameOf(const Phone& phone) const {
    const char* base = "";
    switch (phone.mode) {
        case PhoneMode::BROM: base = "MTK USB Port"; break;
        case PhoneMode::PRELOADER:
        case PhoneMode::CFG: base = "MTK PreLoader USB VCOM"; break;
        case PhoneMode::DA: base = "MTK DA USB VCOM"; break;
        case PhoneMode::SPRD: base = "SPRD Serial Port"; break;
        case PhoneMode::SPRD_DOWNLOAD: base = "SPRD Download Port"; break;
    }
    if (!phone.portReady) return base;
    return std::string(base) + " (COM" + std::to_string(phone.com) + ")";
}

int SimBench::LowestFreeCom() const {
    for (int n = 1;; ++n) {
        bool taken = false;
        for (const auto& [socket, phone] : phones_) taken = taken || phone.com == n;
        if (!taken) return n;
    }
}

void SimBench::SetSerialDelay(platform::Millis ms) {
    std::lock_guard g(mutex_);
    serialDelay_ = std::max<platform::Millis>(0, ms);
}

std::string SimBench::ServiceOf(const Phone& phone) {
    return phone.kind == PhoneKind::SPRD ? "sprdvcom" : "wdm_usb";
}

void SimBench::Release(Phone& phone) {
    phone.master.reset();
    phone.slavePath.clear();
}

bool SimBench::Enumerate(int socket, Phone& phone, bool keepCom) {
    Release(phone);
    platform::UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master) return false;
    char name[128];
    if (::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0 ||
        ::ptsname_r(master.get(), name, sizeof name) != 0)
        return false;
    phone.master = std::move(master);
    phone.slavePath = name;
    if (!keepCom) {
        phone.com = 0;  // its old number is free for itself as for any other
        phone.com = LowestFreeCom();
    }
    ++phone.enumeration;
    phone.portReady = serialDelay_ == 0;
    if (!phone.portReady) {
        returns_.push_back({clock_.Now() + serialDelay_, socket, phone.plugId, false, phone.enumeration});
        returnsChanged_.notify_all();
    }
    enumSeen_[ServiceOf(phone)] = true;
    const std::string id = InstanceIdOf(socket, phone);
    names_[id] = FriendlyNameOf(phone);
    registry_.SetProfile(id, phone.profile);
    if (phone.kind == PhoneKind::SPRD) registry_.SetPortProfile(static_cast<unsigned long>(phone.com), phone.profile);
    return true;
}

bool SimBench::Plug(int socket, PhoneKind kind, const engine::PhoneProfile& profile) {
    {
        std::lock_guard g(mutex_);
        if (socket < 0 || socket >= SocketCount() || phones_.count(socket)) return false;
        Phone phone{kind, PhoneMode::BROM, 0, {}, "", profile, nextPlugId_++, true};
        phone.profile.plug = phone.plugId;  // the engines' jobs learn their connection from it
        switch (kind) {
            case PhoneKind::MTK_BROM: phone.mode = PhoneMode::BROM; break;
            case PhoneKind::MTK_PRELOADER: phone.mode = PhoneMode::PRELOADER; break;
            case PhoneKind::SPRD: phone.mode = PhoneMode::SPRD; break;
            case PhoneKind::CFG: phone.mode = PhoneMode::CFG; break;
        }
        if (!Enumerate(socket, phone, false)) return false;
        if (kind == PhoneKind::SPRD && sprdPhones_) {
            // Listening before the phone shows up: its engine may come at once.
            std::string error;
            if (!sprdPhones_->Start(phone.com, phone.plugId, phone.profile, error)) {
                std::fprintf(stderr, "simulated bench: socket %d: %s\n", socket, error.c_str());
                Release(phone);
                return false;
            }
        }
        phones_.emplace(socket, std::move(phone));
    }
    changes_.Notify();
    return true;
}

void SimBench::UseSprdPhonePrograms(std::unique_ptr<SprdPhonePrograms> programs) {
    std::lock_guard g(mutex_);
    sprdPhones_ = std::move(programs);
}

std::string SimBench::SprdReportPath(int com, std::uint64_t plug) const {
    std::lock_guard g(mutex_);
    return sprdPhones_ ? sprdPhones_->ReportPath(com, plug) : "";
}

bool SimBench::Unplug(int socket) {
    std::uint64_t plug = 0;
    {
        std::lock_guard g(mutex_);
        auto it = phones_.find(socket);
        if (it == phones_.end()) return false;
        plug = it->second.plugId;
        Release(it->second);
        // Its report is written on the way out.
        if (it->second.kind == PhoneKind::SPRD && sprdPhones_) sprdPhones_->End(it->second.com);
        phones_.erase(it);
    }
    registry_.Unplugged(plug);
    changes_.Notify();
    return true;
}

void SimBench::OnSwitch(const engine::SwitchEvent& e) {
    bool changed = false;
    {
        std::lock_guard g(mutex_);
        for (auto& [socket, phone] : phones_) {
            bool keepCom = false;
            if (!phone.present) continue;
            if (e.kind == engine::SwitchEvent::MTK_TO_DA && phone.mode == PhoneMode::BROM &&
                InstanceIdOf(socket, phone) == e.instanceId) {
                phone.mode = PhoneMode::DA;
            } else if (e.kind == engine::SwitchEvent::SPRD_TO_DOWNLOAD_PORT && phone.mode == PhoneMode::SPRD &&
                       static_cast<unsigned long>(phone.com) == e.comPort) {
                // The SPRD engine knows its phone by the port number only, and the
                // port keeps its number when the phone comes back on it.
                // Still connected, the same device: the station announces it again itself.
                if (sprdPhones_ && phone.profile.sprdStays) break;
                phone.mode = PhoneMode::SPRD_DOWNLOAD;
                keepCom = true;
            } else {
                continue;
            }
            if (!keepCom) {
                // The simulated MTK engine goes on at once over the DA port, so the
                // phone must be there when it does.
                changed = Enumerate(socket, phone, false);
                break;
            }
            Release(phone);
            phone.present = false;
            returns_.push_back({clock_.Now() + kReEnumerateMs, socket, phone.plugId, keepCom});
            changed = true;
            break;
        }
    }
    if (changed) {
        returnsChanged_.notify_all();
        changes_.Notify();
    }
}

std::optional<PhoneMode> SimBench::ModeAt(int socket) const {
    std::lock_guard g(mutex_);
    auto it = phones_.find(socket);
    if (it == phones_.end()) return std::nullopt;
    return it->second.mode;
}

bool SimBench::JobRunningAt(int socket) const {
    std::uint64_t plug = 0;
    {
        std::lock_guard g(mutex_);
        auto it = phones_.find(socket);
        if (it == phones_.end()) return false;
        plug = it->second.plugId;
    }
    return registry_.InUse(plug);
}

std::string SimBench::InstanceIdAt(int socket) const {
    std::lock_guard g(mutex_);
    auto it = phones_.find(socket);
    return it == phones_.end() || !it->second.present ? "" : InstanceIdOf(socket, it->second);
}

std::string SimBench::FriendlyNameAt(int socket) const {
    std::lock_guard g(mutex_);
    auto it = phones_.find(socket);
    return it == phones_.end() || !it->second.present ? "" : FriendlyNameOf(it->second);
}

std::vector<app::HubPortEntry> SimBench::EnumerateHubPorts() {
    std::vector<app::HubPortEntry> ports;
    for (int s = 0; s < SocketCount(); ++s) {
        app::HubPortEntry e{};
        e.hubId = HubName(s, true);
        e.port = static_cast<std::uint32_t>(s % socketsPerHub_ + 1);
        ports.push_back(e);
    }
    return ports;
}

std::vector<app::DeviceInfo> SimBench::EnumeratePreloaderDevices() {
    std::lock_guard g(mutex_);
    std::vector<app::DeviceInfo> found;
    for (const auto& [socket, phone] : phones_) {
        if (phone.mode != PhoneMode::PRELOADER || !phone.present) continue;
        app::DeviceInfo info{};
        info.type = app::EventKind::MTK;
        info.friendlyName = FriendlyNameOf(phone);
        info.location = InstanceIdOf(socket, phone);
        info.hubPort.hubId = HubName(socket, true);
        info.hubPort.port = static_cast<std::uint32_t>(socket % socketsPerHub_ + 1);
        found.push_back(info);
    }
    return found;
}

bool SimBench::ServiceExists(const std::string& service) {
    return service == "wdm_usb" || service == "sprdvcom";
}

std::vector<std::string> SimBench::PhoneIdsLocked(const std::string& service,
                                                  std::vector<std::string>* locations) const {
    // Every interface bound to the driver, as the kernel lists them; the station's rule
    // picks the phone's own.
    std::vector<devices::InterfaceFacts> facts;
    std::vector<std::pair<std::string, std::string>> idAndLocation;
    for (const auto& [socket, phone] : phones_) {
        if (!phone.present || ServiceOf(phone).find(service) == std::string::npos) continue;
        const bool cdc = ServiceOf(phone) == "wdm_usb";
        for (int iface = 0; iface < (cdc ? 2 : 1); ++iface) {
            const std::string id = InstanceIdOf(socket, phone, iface);
            devices::InterfaceFacts f;
            f.sysname = id.substr(id.find_last_of('\\') + 1);
            f.device = f.sysname.substr(0, f.sysname.find(':'));
            f.interfaceClass = iface == 1 ? devices::kCdcDataClass : (cdc ? 0x02 : 0xFF);
            f.hasSerialPort = iface == 0 && phone.portReady;
            facts.push_back(f);
            idAndLocation.emplace_back(id, LocationOf(socket, phone));
        }
    }
    std::vector<std::string> ids;
    for (std::size_t i : devices::PhoneInterfaces(facts)) {
        ids.push_back(idAndLocation[i].first);
        if (locations) locations->push_back(idAndLocation[i].second);
    }
    return ids;
}

std::optional<std::vector<std::string>> SimBench::ServiceDevices(const std::string& service) {
    std::lock_guard g(mutex_);
    if (!ServiceExists(service) || !enumSeen_.count(service)) return std::nullopt;
    return PhoneIdsLocked(service, nullptr);
}

devices::PortTable SimBench::BuildPortTable(const std::string& service) {
    std::lock_guard g(mutex_);
    devices::PortTable table;
    std::vector<std::string> locations;
    const auto ids = PhoneIdsLocked(service, &locations);
    for (std::size_t i = 0; i < ids.size(); ++i) table.Add(locations[i], ids[i]);
    return table;
}

std::optional<std::string> SimBench::FriendlyNameOf(const std::string& instanceId) {
    std::lock_guard g(mutex_);
    // A device keeps its name after it has gone, as the removal event needs it.
    auto it = names_.find(instanceId);
    if (it == names_.end()) return std::nullopt;
    return it->second;
}

std::optional<devices::PortDevice> SimBench::DeviceOfPort(int comNumber) {
    std::lock_guard g(mutex_);
    for (const auto& [socket, phone] : phones_)
        if (phone.present && phone.com == comNumber)
            return devices::PortDevice{InstanceIdOf(socket, phone), LocationOf(socket, phone)};
    return std::nullopt;
}

std::string SimBench::SerialNodeOf(int comNumber) {
    std::lock_guard g(mutex_);
    for (const auto& [socket, phone] : phones_)
        if (phone.present && phone.portReady && phone.com == comNumber) return phone.slavePath;
    return "";
}

}  // namespace quorvel::sim
