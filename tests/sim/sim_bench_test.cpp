#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "devices/ComProbe.h"
#include "devices/DeviceMonitor.h"
#include "devices/DeviceTestKit.h"
#include "devices/DeviceText.h"
#include "sim/Scenario.h"
#include "sim/SimBench.h"
#include "sim/SimEngineProgram.h"
#include "support/Golden.h"
#include "support/StationFixture.h"

namespace quorvel::sim {
namespace {

const char* const kModes[] = {"brom", "preloader", "da", "sprd", "sprd-download", "cfg"};

// What the bench shows: each phone (its mode, instance ID, friendly name, whether its
// serial port exists) and each service's device list with the locations of its table.
std::string Shows(SimBench& bench) {
    std::string s;
    for (int k = 0; k < bench.SocketCount(); ++k) {
        const auto mode = bench.ModeAt(k);
        const std::string id = bench.InstanceIdAt(k), name = bench.FriendlyNameAt(k);
        if (!mode) continue;
        s += "\n  socket " + std::to_string(k) + " " + kModes[static_cast<int>(*mode)] + ": ";
        const int com = devices::ComNumberOfName(name);
        s += id.empty() ? "away" : id + " \"" + name + "\"" + (bench.SerialNodeOf(com).empty() ? ", no port" : "");
    }
    for (const char* service : {"wdm_usb", "sprdvcom"}) {
        const auto ids = bench.ServiceDevices(service);
        s += std::string("\n  ") + service + ":" + (ids ? ids->empty() ? " none" : "" : " nothing seen yet");
        for (const auto& id : ids.value_or(std::vector<std::string>{}))
            s += " " + id + " at " + devices::LocationIn(bench.BuildPortTable(service), id);
    }
    return s;
}

// A script of steps (" ; " between them) on a fresh 2 x 4 bench in virtual time, each
// step with its answer and the bench's change signals, and what the bench then shows.
std::string Play(const std::string& script) {
    platform::ManualClock clock;
    engine::SimPhoneRegistry registry;
    SimBench bench{2, 4, registry, clock};
    // The bench's returner thread waits on the clock from the start.
    if (!clock.AwaitWaiters(1)) return "the bench never waits on its clock";
    std::string out;
    for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + 3) {
        end = script.find(" ; ", at);
        const std::string step = script.substr(at, end - at);
        std::istringstream in(step);
        std::string verb, arg, kind;
        in >> verb >> arg >> kind;
        const int socket = std::atoi(arg.c_str());
        const auto generation = bench.Changes().Generation();
        const std::string rest = step.substr(std::min(step.size(), verb.size() + 1));
        std::string said = "done";
        bool look = false;  // whether the step may have changed what the bench shows
        if (verb == "plug") {
            look = bench.Plug(socket, PhoneKindOf(kind).value_or(PhoneKind::CFG), {});
            said = look ? "plugged" : "refused";
        } else if (verb == "unplug") {
            look = bench.Unplug(socket);
            said = look ? "pulled" : "refused";
        } else if (verb == "switch") {  // as the engine switches the phone on `socket`
            const std::string id = bench.InstanceIdAt(socket);
            if (bench.ModeAt(socket) == PhoneMode::SPRD)
                registry.NotifySwitch(
                    {engine::SwitchEvent::SPRD_TO_DOWNLOAD_PORT, "",
                     static_cast<unsigned long>(devices::ComNumberOfName(bench.FriendlyNameAt(socket))), -1});
            else
                registry.NotifySwitch({engine::SwitchEvent::MTK_TO_DA, id, 0, 0});
            said = "the old device is named \"" + bench.FriendlyNameOf(id).value_or("?") + "\"";
            look = true;
        } else if (verb == "wait") {  // until the bench changes after that much time
            clock.AwaitWaiters(1);
            clock.Advance(std::atoi(arg.c_str()));
            for (int i = 0; i < 2500 && bench.Changes().Generation() == generation; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            look = true;
        } else if (verb == "serial-delay") {
            bench.SetSerialDelay(socket);
        } else if (verb == "probe") {
            platform::SystemClock real;
            devices::ComProbe probe(real, [&](int n) { return bench.SerialNodeOf(n); });
            said = probe.Probe(bench.FriendlyNameAt(socket)) ? "answers" : "silent";
        } else if (verb == "node") {  // of COM<arg>
            said = bench.SerialNodeOf(socket).rfind("/dev/pts/", 0) == 0 ? "a pseudo-terminal" : "none";
        } else if (verb == "name") {
            said = bench.FriendlyNameOf(arg).value_or("unknown");
        } else if (verb == "hubs") {
            for (const auto& p : bench.EnumerateHubPorts())
                said += "\n  hub " + p.hubId + " port " + std::to_string(p.port);
            for (int k = 0; k < bench.SocketCount(); ++k)
                said +=
                    "\n  socket " + std::to_string(k) + ": HS " + bench.HsLocation(k) + ", LS " + bench.LsLocation(k);
        } else if (verb == "preloaders") {
            for (const auto& d : bench.EnumeratePreloaderDevices())
                said += "\n  hub " + d.hubPort.hubId + " port " + std::to_string(d.hubPort.port);
        } else if (verb == "native-usb") {  // whether an [ENGINES] SPRD= line can reach no simulated phone
            said = engine::IsNativeSprdOverUsb(rest) ? "yes" : "no";
        } else if (verb == "phone-args") {  // of a simulated SPRD phone with these plug options
            engine::PhoneProfile p;
            p.sprdStays = rest.find("stay") != std::string::npos;
            if (const auto f = rest.find("fault="); f != std::string::npos) p.sprdFault = rest.substr(f + 6);
            said.clear();
            for (const auto& w : SprdPhoneArgs(p)) said += (said.empty() ? "" : " ") + w;
        } else {
            return "no such step: " + step;
        }
        const auto changes = bench.Changes().Generation() - generation;
        out += (out.empty() ? "" : "\n") + step + ": " + said +
               (changes ? ", " + std::to_string(changes) + " change" : "") + (changes > 1 ? "s" : "") +
               (look ? Shows(bench) : "");
    }
    return out;
}

TEST(SimBench, PhonesAsTheStationSeesThem) {
    EXPECT_TRUE(test::MatchesCaseGolden("sim-bench/phones.txt", Play));
}

// Each look at the station sees the total one higher; a restart is refused.
struct CountingHost final : ScenarioHost {
    bool Up(std::string&) override { return true; }
    ScenarioBench* Bench() override { return nullptr; }
    void Press() override {}
    void Menu(const std::string&, int) override {}
    bool Running() override { return false; }
    std::string Observe(const std::vector<std::string>&) override { return std::to_string(++looks); }
    bool Set(const std::string&, const std::string&, const std::string&, std::string&) override { return true; }
    bool Restart(std::string& why) override { return why = "refused", false; }
    bool WriteFile(const std::string&, const std::string&, std::string& why) override { return why = "full", false; }
    int looks = 0;
};

// A scenario text (one line of the golden file, "\\n" between its lines) as what was
// parsed of it, each step with what differs from a blank one, and how it played on a
// CountingHost; or the parse error.
std::string Parsed(std::string text) {
    for (auto at = text.find("\\n"); at != std::string::npos; at = text.find("\\n", at)) text.replace(at, 2, "\n");
    std::string error;
    const auto s = ParseScenario(text, &error);
    if (!s) return "error: " + error;
    static const char* const kActions[] = {"press", "plug",   "unplug", "serial-delay", "end",   "start", "stop",
                                           "await", "expect", "set",    "restart",      "write", "menu",  "auto"};
    static const char* const kKinds[] = {"brom", "preloader", "sprd", "cfg"};
    std::ostringstream o;
    o << "engines";
    for (const auto& e : s->engines) o << ' ' << e;
    o << ", speed " << s->speed << ", end " << s->end;
    const engine::PhoneProfile blank;
    for (const ScenarioStep& st : s->steps) {
        o << "\n" << st.at << ' ' << kActions[st.action];
        if (st.socket >= 0) o << " socket=" << st.socket;
        if (st.action == ScenarioStep::PLUG || st.action == ScenarioStep::AUTO)
            o << " kind=" << kKinds[static_cast<int>(st.kind)];
        if (st.delay) o << " delay=" << st.delay;
        const engine::PhoneProfile& p = st.profile;
        if (p.pass != blank.pass) o << " pass=" << p.pass;
        if (p.failingStep != blank.failingStep) o << " step=" << p.failingStep;
        if (p.durationMs != blank.durationMs) o << " duration=" << p.durationMs;
        if (p.sizeBytes != blank.sizeBytes) o << " bytes=" << p.sizeBytes;
        if (p.speedMBps != blank.speedMBps) o << " speed=" << p.speedMBps;
        if (p.switchPort != blank.switchPort) o << " switch=" << p.switchPort;
        if (p.sprdPhase1Ms != blank.sprdPhase1Ms) o << " phase1=" << p.sprdPhase1Ms;
        if (p.sprdStays) o << " stays";
        if (!p.sprdFault.empty()) o << " fault=" << p.sprdFault;
        if (!p.misbehave.empty()) o << " misbehave=" << p.misbehave;
        if (!st.section.empty()) o << " section=" << st.section;
        if (!st.key.empty()) o << " key=" << st.key;
        if (!st.value.empty()) o << " value=\"" << test::Printable(st.value) << '"';
        if (st.action == ScenarioStep::AWAIT || st.action == ScenarioStep::EXPECT) {
            const ScenarioCheck& c = st.check;
            o << " [";
            for (const auto& w : c.subject) o << (&w == &c.subject[0] ? "" : " ") << w;
            o << "]" << (c.contains ? " ~" : c.lacks ? " !~" : "") << " \"" << c.expected << '"';
            if (st.action == ScenarioStep::AWAIT) o << " within " << c.timeout;
        }
    }
    platform::ManualClock clock;
    test::ClockDriver driver(clock);
    CountingHost host;
    const std::string failure = RunScenario(*s, clock, host).failure;
    o << "\nplayed: " << (failure.empty() ? "holds" : failure);
    return o.str();
}

TEST(ScenarioTest, ParsesStepsOrRefusesWithTheLine) {
    EXPECT_TRUE(test::MatchesCaseGolden("scenario-parse/lines.txt", Parsed));
}

}  // namespace
}  // namespace quorvel::sim
