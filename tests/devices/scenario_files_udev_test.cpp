// The scenario files whose "#@ engines:" line names udev, each played against a whole
// headless station on its real udev backend, on a device tree shaped like the simulated
// bench; the in-process simulated engines serve the phones.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "UmockdevBench.h"
#include "devices/BenchSurvey.h"
#include "devices/DeviceText.h"
#include "devices/KernelDrivers.h"
#include "support/ScenarioFiles.h"

namespace quorvel::test {
namespace {

using sim::PhoneKind;
using sim::PhoneMode;

// One 2.0 controller with one hub of four sockets. A phone shows as the kernel presents
// its kind and mode; SPRD phones on sockets 2 and 3 as smartphones in download mode do:
// one vendor-class interface, no driver, no serial port, a COM number of their socket.
// An engine's switch re-enumerates a phone as the simulated bench does: a boot ROM comes
// back in DA mode and an SPRD phone on its download port a second later, with its port's
// number; an SPRD phone that stays stays. Calls come from the scenario's thread, the engines'
// (switches) and its own (ports and phones that come late), one at a time under its lock.
class ScenarioTree final : public console::DeviceTree {
public:
    static constexpr int kSockets = 4;

    ScenarioTree(UmockdevTree& tree, platform::Clock& clock) : tree_(tree), clock_(clock) {
        hub_ = tree_.Hub(tree_.RootHub("0000:00:14.0", "usb1", " 2.00", "480", "1"), "1-1", "1", "4");
        // Beside it, as on most PCs, a 1.1 controller's root hub: no socket of the station's.
        tree_.RootHub("0000:00:1d.0", "usb2", " 1.10", "12", "2");
        tree_.LoadDriver("cdc_acm");
        tree_.LoadDriver("option");
        late_ = std::thread([this] { LateLoop(); });
    }
    ~ScenarioTree() override {
        {
            std::lock_guard g(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        late_.join();
    }

    void Serve(console::StationRig* rig) override {
        std::lock_guard g(mutex_);
        if (rig_) rig_->Phones().SetSwitchHook({});
        rig_ = rig;
        if (rig_) rig_->Phones().SetSwitchHook([this](const engine::SwitchEvent& e) { OnSwitch(e); });
    }
    int SocketCount() const override { return kSockets; }
    std::string HsLocation(int socket) const override {
        return "pci-0000:00:14.0-usbv2-0:1\\PORT" + std::to_string(socket + 1);
    }
    // One 2.0 hub serves both speeds.
    std::string LsLocation(int socket) const override { return HsLocation(socket); }
    void SetSerialDelay(platform::Millis ms) override {
        std::lock_guard g(mutex_);
        serialDelay_ = ms;
    }
    std::optional<PhoneMode> ModeAt(int socket) const override {
        std::lock_guard g(mutex_);
        const auto it = sockets_.find(socket);
        return it == sockets_.end() ? std::nullopt : std::optional(it->second.mode);
    }

    bool Plug(int socket, PhoneKind kind, const engine::PhoneProfile& profile) override {
        std::lock_guard g(mutex_);
        if (socket < 0 || socket >= kSockets || sockets_.count(socket)) return false;
        Phone& phone = sockets_[socket];
        phone.mode = kind == PhoneKind::MTK_BROM ? PhoneMode::BROM
                     : kind == PhoneKind::SPRD   ? PhoneMode::SPRD
                                                 : PhoneMode::PRELOADER;
        phone.profile = profile;
        phone.profile.plug = nextPlug_++;  // the engines' jobs learn their connection from it
        if (phone.mode != PhoneMode::SPRD || socket < 2) {
            phone.tty = FreeTty(phone.mode == PhoneMode::SPRD ? "ttyUSB" : "ttyACM");
            phone.com = devices::ComNumberOfNode(phone.tty);
        } else {
            phone.com = devices::UsbComNumber(HsLocation(socket), [&](int n) {
                return std::any_of(sockets_.begin(), sockets_.end(), [&](const auto& s) { return s.second.com == n; });
            });
        }
        Enumerate(socket, phone);
        return true;
    }
    bool Unplug(int socket) override {
        std::uint64_t plug = 0;
        {
            std::lock_guard g(mutex_);
            const auto it = sockets_.find(socket);
            if (it == sockets_.end()) return false;
            if (!it->second.usb.empty()) tree_.Unplug(it->second.usb);
            plug = it->second.profile.plug;
            sockets_.erase(it);
            if (rig_) rig_->Phones().Unplugged(plug);
        }
        return true;
    }

private:
    struct Phone {
        PhoneMode mode = PhoneMode::BROM;
        engine::PhoneProfile profile;
        std::string tty;      // its serial port's node name, kept over a re-enumeration; none: a vendor interface
        int com = 0;          // its COM number, kept too
        std::string usb;      // its device now; empty while it is away
        std::string control;  // its interface that owns the serial port
    };
    struct Late {
        platform::Millis due;
        int socket;
        std::uint64_t plug;
        std::string usb;  // the device whose port comes; empty: the phone itself comes back
    };

    std::string FreeTty(const std::string& prefix) const {
        for (int n = 0;; ++n) {
            const std::string name = prefix + std::to_string(n);
            if (std::none_of(sockets_.begin(), sockets_.end(), [&](const auto& s) { return s.second.tty == name; }))
                return name;
        }
    }
    // The phone shows up on its socket in its mode, its serial port now or after the delay.
    void Enumerate(int socket, Phone& phone) {
        const std::string name = "1-1." + std::to_string(socket + 1), devpath = name.substr(2);
        const bool sprd = phone.mode == PhoneMode::SPRD || phone.mode == PhoneMode::SPRD_DOWNLOAD;
        const char* pid = phone.mode == PhoneMode::BROM ? "0003" : phone.mode == PhoneMode::DA ? "2001" : "2000";
        const char* product = phone.mode == PhoneMode::BROM ? "MT65xx BROM"
                              : phone.mode == PhoneMode::DA ? "MTK USB Port"
                                                            : "MT65xx Preloader";
        const bool late = serialDelay_ > 0 && !phone.tty.empty();
        phone.usb = sprd ? tree_.Phone(hub_, name.c_str(), "1782", "4d00", devpath.c_str(), "SPRD U2S Diag",
                                       late || phone.tty.empty() ? nullptr : phone.tty.c_str(), false,
                                       phone.tty.empty() ? nullptr : "option")
                         : tree_.Phone(hub_, name.c_str(), "0e8d", pid, devpath.c_str(), product,
                                       late ? nullptr : phone.tty.c_str());
        phone.control = phone.usb + "/" + name + ":1.0";
        if (sprd && phone.tty.empty()) {
            // Its engine opens the USB node, which the kernel numbers anew at each enumeration.
            char node[32];
            std::snprintf(node, sizeof node, "/bus/usb/001/%03d", ++devnum_);
            tree_.mock.setAttribute(tree_.tb, phone.usb.c_str(), "busnum", "1");
            tree_.mock.setAttribute(tree_.tb, phone.usb.c_str(), "devnum", std::to_string(devnum_).c_str());
            std::filesystem::create_directories(tree_.nodes + "/bus/usb/001");
            std::ofstream(tree_.nodes + node).flush();
        }
        if (phone.mode == PhoneMode::BROM) tree_.mock.setAttribute(tree_.tb, phone.usb.c_str(), "speed", "12");
        if (rig_) {
            char id[96];
            std::snprintf(id, sizeof id, "USB\\VID_%s&PID_%s\\%s:1.0", sprd ? "1782" : "0E8D", sprd ? "4D00" : pid,
                          name.c_str());
            rig_->Phones().SetProfile(id, phone.profile);
            if (sprd) rig_->Phones().SetPortProfile(static_cast<unsigned long>(phone.com), phone.profile);
        }
        tree_.Announce(phone.usb);
        if (late) Later({clock_.Now() + serialDelay_, socket, phone.profile.plug, phone.usb});
    }
    void Later(Late late) {
        lates_.push_back(std::move(late));
        wake_.notify_all();
    }
    void OnSwitch(const engine::SwitchEvent& e) {
        std::lock_guard g(mutex_);
        for (auto& [socket, phone] : sockets_) {
            const std::string name = "1-1." + std::to_string(socket + 1);
            if (phone.usb.empty()) continue;
            const bool da = e.kind == engine::SwitchEvent::MTK_TO_DA && phone.mode == PhoneMode::BROM &&
                            e.instanceId == "USB\\VID_0E8D&PID_0003\\" + name + ":1.0";
            const bool download = e.kind == engine::SwitchEvent::SPRD_TO_DOWNLOAD_PORT &&
                                  phone.mode == PhoneMode::SPRD && e.comPort == static_cast<unsigned long>(phone.com);
            if (!da && !download) continue;
            if (rig_) rig_->TellWatchOfSwitch(e);
            if (download && phone.profile.sprdStays) {
                phone.mode = PhoneMode::SPRD_DOWNLOAD;
                return;
            }
            // The in-process engines never open the port, so the phone may take the
            // second a real one takes to come back; two phones switched together then
            // are both away at once.
            tree_.Unplug(phone.usb);
            phone.usb.clear();
            phone.mode = da ? PhoneMode::DA : PhoneMode::SPRD_DOWNLOAD;
            Later({clock_.Now() + sim::SimBench::kReEnumerateMs, socket, phone.profile.plug, ""});
            return;
        }
    }
    void LateLoop() {
        std::unique_lock lk(mutex_);
        while (!stopping_) {
            platform::Millis next = platform::kForever;
            for (const Late& l : lates_) next = std::min(next, l.due);
            if (next == platform::kForever)
                clock_.WaitFor(lk, wake_, platform::kForever, [&] { return stopping_ || !lates_.empty(); });
            else
                clock_.WaitUntil(lk, wake_, next, [&] { return stopping_; });
            const platform::Millis now = clock_.Now();
            std::vector<Late> due;
            for (auto it = lates_.begin(); it != lates_.end();) {
                if (it->due > now) {
                    ++it;
                    continue;
                }
                due.push_back(*it);
                it = lates_.erase(it);
            }
            for (const Late& l : due) {
                auto it = sockets_.find(l.socket);
                if (stopping_ || it == sockets_.end() || it->second.profile.plug != l.plug) continue;  // gone
                Phone& phone = it->second;
                if (l.usb.empty())
                    Enumerate(l.socket, phone);
                else if (phone.usb == l.usb)
                    tree_.mock.uevent(tree_.tb, tree_.Tty(phone.control, phone.tty.c_str()).c_str(), "add");
            }
        }
    }

    UmockdevTree& tree_;
    platform::Clock& clock_;
    std::string hub_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    console::StationRig* rig_ = nullptr;
    std::map<int, Phone> sockets_;
    std::vector<Late> lates_;
    platform::Millis serialDelay_ = 0;
    std::uint64_t nextPlug_ = 1;
    int devnum_ = 2;  // the hub's
    bool stopping_ = false;
    std::thread late_;
};

class UdevScenarioFile : public UmockdevBench, public ::testing::WithParamInterface<Play> {};

TEST_P(UdevScenarioFile, Holds) {
    RUN_UNDER_UMOCKDEV();
    TempDir dir;
    nodes = dir.File("dev");  // the station looks for serial nodes there
    std::filesystem::create_directories(nodes);
    platform::SysPaths paths;
    paths.dev = nodes;
    // A well set-up PC, so that the start-up bench check finds nothing to tell, in the
    // station folder: a scenario spoils it with "write pc/...".
    dir.Write("pc/rules/" + std::string(devices::kRuleFile), "");
    dir.Write("pc/modules/" + devices::KernelRelease() + "/modules.builtin",
              "kernel/drivers/usb/serial/usbserial.ko\n");
    std::filesystem::create_directories(dir.File("pc/proc"));
    paths.udevRules = paths.etcUdevRules = dir.File("pc/rules");
    paths.modules = dir.File("pc/modules");
    paths.proc = dir.File("pc/proc");
    PlayScenarioFile(
        GetParam(), dir, "Simulated=0\n",
        [this](platform::Clock& clock) { return std::make_unique<ScenarioTree>(*this, clock); }, paths);
}

INSTANTIATE_TEST_SUITE_P(Files, UdevScenarioFile, ::testing::ValuesIn(ScenarioPlays(true)),
                         [](const auto& info) { return PlayName(info.param); });

}  // namespace
}  // namespace quorvel::test
