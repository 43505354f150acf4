#include <gtest/gtest.h>

#include <map>

#include "DeviceTestKit.h"
#include "devices/BindingCommands.h"
#include "devices/PortBinding.h"
#include "platform/ProfileIni.h"
#include "sim/SimEngines.h"
#include "slots/DownloadManager.h"
#include "station/Messages.h"
#include "support/Golden.h"
#include "support/TableFile.h"

namespace quorvel::devices {
namespace {

using namespace app;

// An unbound station with the binding wired to sim workers and a probe that always opens.
struct Bench {
    Bench() {
        f.WriteSettings("[COMMON]\nMac=00-11-22-33-44-55\n");
        f.UnbindAllSlots();
    }
    test::StationFixture f;
    Station& st = *f.station;
    test::ClockDriver driver{f.clock};
    test::RecordingWindow window;
    engine::SimPhoneRegistry registry;
    engine::SimEngineFactory engines{st, registry};
    engine::DownloadManager manager{st, window, engines};
    test::Pty pty;
    int probed = 0;
    ComProbe probe{f.clock, [this](int) { return ++probed, pty.Slave(); }};
    PortBinding binding{st, manager, probe, window};
};

// One story of tests/tables/port-binding.txt: each step, what it answered, the virtual
// time it took, the probes and what it sent or posted to the window.
std::string Story(const std::vector<std::string>& w) {
    static const std::map<std::string, std::string> kPhones{{"brom", "USB\\VID_0E8D&PID_0003\\2-1.1:1.0"},
                                                            {"preloader", "USB\\VID_0E8D&PID_2000\\1-1.1:1.0"},
                                                            {"da", "USB\\VID_0E8D&PID_2001\\1-1.1:1.0"},
                                                            {"sprd", "USB\\VID_1782&PID_4D00\\1-1.1:1.0"}};
    static const std::map<std::string, std::size_t> kArity{
        {"workers", 1},  {"bind", 4},  {"running", 0}, {"ls", 2},     {"hs", 2},     {"fed", 2},
        {"arrive", 4},   {"leave", 4}, {"removal", 1}, {"slots", 1},  {"device", 1}, {"thread", 1},
        {"notified", 1}, {"saved", 2}, {"remove", 1},  {"compact", 0}};
    std::map<std::string, BindState> states;
    for (int s : {0, 1, 2, 3, 4, 999}) states[BindStateName(static_cast<BindState>(s))] = static_cast<BindState>(s);
    Bench b;
    std::string out;
    std::size_t seen = 0;  // of the window's log
    for (std::size_t i = 1; i < w.size();) {
        const auto n = kArity.find(w[i]);
        if (n == kArity.end() || i + n->second >= w.size()) return out + "bad step: " + w[i];
        const std::string verb = w[i];
        const std::vector<std::string> a(w.begin() + i + 1, w.begin() + i + 1 + n->second);
        i += n->second + 1;
        out += verb;
        for (const auto& word : a) out += " " + (word.empty() ? "\"\"" : word);
        out += "\n";
        const auto phone = [&](const std::string& p) { return kPhones.contains(p) ? kPhones.at(p) : p; };
        const auto mtk = [&] {
            return PortBinding::InfoOf(DeviceEvent{phone(a[0]), "Phone (COM5)", EventKind::MTK, true, a[1]});
        };
        const auto kind = [&] {
            return a[0] == "MTK" ? EventKind::MTK : a[0] == "SPRD" ? EventKind::SPRD : EventKind::CFG;
        };
        const auto slot = [&](std::size_t k) { return std::stoi(a[k]); };
        const auto t0 = b.f.clock.Now();
        const int probes = b.probed;
        std::string said;
        if (verb == "workers") {
            for (int k = 0; k < slot(0); ++k)
                b.manager.AddWorker(HubPortEntry{"1-1", static_cast<std::uint32_t>(k + 1)});
        } else if (verb == "bind") {
            b.st.bindings.SetHsLocation(slot(0), a[1]);
            b.st.bindings.SetLsLocation(slot(0), a[3]);
            b.st.bindings.SetComName(slot(0), "Port (COM" + std::to_string(slot(0) + 1) + ")");
            b.st.bindings.SetState(slot(0), states.at(a[2]));
        } else if (verb == "remove") {
            BindingCommands(b.st).RemoveTheBind(slot(0));
        } else if (verb == "compact") {
            BindingCommands(b.st).CompactBindings();
        } else if (verb == "running") {
            b.st.stationRunning = true;
        } else if (verb == "ls" || verb == "hs" || verb == "fed") {
            const bool yes = verb == "ls"   ? b.binding.Bind_MTKDev_LS(mtk())
                             : verb == "hs" ? b.binding.Bind_MTKDev_HS(mtk())
                                            : b.binding.HasBinded_MTK(mtk());
            said = yes ? "yes" : "no";
        } else if (verb == "arrive" || verb == "leave") {
            b.binding.OnDeviceEvent(DeviceEvent{phone(a[1]), a[3], kind(), verb == "arrive", a[2]});
        } else if (verb == "removal") {
            said = b.binding.SignalRemoval(
                       PortBinding::InfoOf(DeviceEvent{kPhones.at("sprd"), a[0], EventKind::SPRD, false, ""}))
                       ? "yes"
                       : "no";
        } else if (verb == "slots") {
            for (int k = 0; k < slot(0); ++k)
                said += (k ? ", " : "") + b.st.bindings.HsLocation(k) + " " + b.st.bindings.LsLocation(k) + " " +
                        BindStateName(b.st.bindings.State(k));
        } else if (verb == "device") {
            said = b.manager.WorkerAt(slot(0))->Device().instanceId;
        } else if (verb == "thread") {
            said = std::to_string(b.manager.WorkerAt(slot(0))->ThreadIndex());
        } else if (verb == "notified") {
            said = std::to_string(b.manager.WorkerAt(slot(0))->LastNotifyCode());
        } else {
            said = platform::ProfileIni::ReadString(b.f.SettingsFile(), a[0], "Index" + a[1], "(none)", 260);
        }
        if (!said.empty()) out += "  " + said + "\n";
        if (b.f.clock.Now() != t0) out += "  took " + std::to_string(b.f.clock.Now() - t0) + " ms\n";
        if (b.probed != probes) out += "  probed " + std::to_string(b.probed - probes) + "\n";
        const auto log = b.window.Log();
        for (; seen < log.size(); ++seen) out += "  " + log[seen] + "\n";
    }
    return out;
}

TEST(PortBindingTest, Stories) {
    for (const auto& row : test::ReadTable("port-binding.txt")) {
        SCOPED_TRACE(row.where);
        EXPECT_TRUE(test::MatchesGolden("port-binding/" + row.words[0] + ".txt", Story(row.words)));
    }
}

}  // namespace
}  // namespace quorvel::devices
