#include <gtest/gtest.h>

#include <chrono>
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

class SimBenchTest : public ::testing::Test {
protected:
    // Lets the re-enumeration time pass and waits (in real time) for the phone to be back.
    bool ComesBack(std::uint64_t generation) {
        clock.Advance(SimBench::kReEnumerateMs);
        for (int i = 0; i < 500 && bench.Changes().Generation() == generation; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return bench.Changes().Generation() == generation + 1;
    }

    platform::ManualClock clock;
    engine::SimPhoneRegistry registry;
    SimBench bench{2, 4, registry, clock};
};

TEST_F(SimBenchTest, PhonesShowInTheirServiceAndReEnumerateWhenTheEngineSwitchesThem) {
    EXPECT_EQ(bench.SocketCount(), 8);
    EXPECT_EQ(bench.HsLocation(5), "1-2\\PORT2");
    EXPECT_EQ(bench.LsLocation(5), "2-2\\PORT2");
    const auto ports = bench.EnumerateHubPorts();
    ASSERT_EQ(ports.size(), 8u);
    EXPECT_EQ(ports[5].hubId, "1-2");
    EXPECT_EQ(ports[5].port, 2u);
    EXPECT_EQ(bench.ServiceDevices("wdm_usb"), std::nullopt);  // no device seen yet
    const auto g0 = bench.Changes().Generation();
    // The bench's returner thread waits on the clock from the start.
    ASSERT_TRUE(clock.AwaitWaiters(1));
    ASSERT_TRUE(bench.Plug(1, PhoneKind::MTK_BROM, {}));
    ASSERT_TRUE(bench.Plug(2, PhoneKind::SPRD, {}));
    EXPECT_FALSE(bench.Plug(1, PhoneKind::SPRD, {}));  // taken
    EXPECT_FALSE(bench.Plug(8, PhoneKind::SPRD, {}));  // no such socket
    EXPECT_EQ(bench.Changes().Generation(), g0 + 2);

    const std::string brom = bench.InstanceIdAt(1);
    EXPECT_NE(brom.find("PID_0003"), std::string::npos);
    EXPECT_EQ(*bench.ServiceDevices("wdm_usb"), std::vector<std::string>{brom});
    EXPECT_EQ(devices::LocationIn(bench.BuildPortTable("wdm_usb"), brom), bench.LsLocation(1));
    const std::string sprdName = bench.FriendlyNameAt(2);
    EXPECT_EQ(devices::LocationIn(bench.BuildPortTable("sprdvcom"), bench.InstanceIdAt(2)), bench.HsLocation(2));

    registry.NotifySwitch({engine::SwitchEvent::MTK_TO_DA, brom, 0, 0});
    EXPECT_EQ(bench.ModeAt(1), PhoneMode::DA);
    const std::string da = bench.InstanceIdAt(1);
    EXPECT_NE(da.find("PID_2001"), std::string::npos);
    EXPECT_EQ(devices::LocationIn(bench.BuildPortTable("wdm_usb"), da), bench.HsLocation(1));
    // The old device is gone but keeps its name, for its removal event.
    EXPECT_EQ(*bench.FriendlyNameOf(brom), "MTK USB Port (COM1)");
    EXPECT_EQ(bench.FriendlyNameOf("USB\\VID_0E8D&PID_2000\\9-9.9:1.0"), std::nullopt);

    const int com = devices::PortNumberOf(devices::PortNameOf(sprdName));
    registry.NotifySwitch({engine::SwitchEvent::SPRD_TO_DOWNLOAD_PORT, "", static_cast<unsigned long>(com), -1});
    EXPECT_EQ(bench.ModeAt(2), PhoneMode::SPRD_DOWNLOAD);
    EXPECT_EQ(bench.InstanceIdAt(2), "");  // away for a moment
    EXPECT_TRUE(bench.ServiceDevices("sprdvcom")->empty());
    ASSERT_TRUE(ComesBack(g0 + 4));
    EXPECT_EQ(bench.FriendlyNameAt(2), "SPRD Download Port (COM" + std::to_string(com) + ")");

    ASSERT_TRUE(bench.Unplug(1));
    EXPECT_FALSE(bench.Unplug(1));
    EXPECT_EQ(bench.ServiceDevices("wdm_usb")->size(), 0u);
}

TEST_F(SimBenchTest, PhonesAreShapedLikeRealOnesLatePortsAndLowestFreeNumbers) {
    ASSERT_TRUE(clock.AwaitWaiters(1));
    bench.SetSerialDelay(300);
    ASSERT_TRUE(bench.Plug(0, PhoneKind::MTK_PRELOADER, {}));
    const std::string id = bench.InstanceIdAt(0);
    // Two interfaces, one device: never the data half.
    EXPECT_EQ(*bench.ServiceDevices("wdm_usb"), std::vector<std::string>{id});
    EXPECT_EQ(id.substr(id.size() - 4), ":1.0");
    EXPECT_EQ(*bench.FriendlyNameOf(id), "MTK PreLoader USB VCOM");
    EXPECT_EQ(bench.SerialNodeOf(1), "");
    const auto g = bench.Changes().Generation();
    ASSERT_TRUE(clock.AwaitWaiters(1));
    clock.Advance(300);
    for (int i = 0; i < 500 && bench.Changes().Generation() == g; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(*bench.FriendlyNameOf(id), "MTK PreLoader USB VCOM (COM1)");
    EXPECT_NE(bench.SerialNodeOf(1), "");

    bench.SetSerialDelay(0);
    ASSERT_TRUE(bench.Plug(1, PhoneKind::MTK_PRELOADER, {}));
    ASSERT_TRUE(bench.Unplug(0));
    ASSERT_TRUE(bench.Plug(3, PhoneKind::MTK_PRELOADER, {}));
    EXPECT_EQ(bench.FriendlyNameAt(1), "MTK PreLoader USB VCOM (COM2)");
    EXPECT_EQ(bench.FriendlyNameAt(3), "MTK PreLoader USB VCOM (COM1)") << "the number the gone phone had";
}

TEST_F(SimBenchTest, ComPortsArePseudoTerminalsThatVanishWithThePhone) {
    platform::SystemClock real;
    devices::ComProbe probe(real, [this](int n) { return bench.SerialNodeOf(n); });
    ASSERT_TRUE(bench.Plug(0, PhoneKind::MTK_PRELOADER, {}));
    const std::string name = bench.FriendlyNameAt(0);
    EXPECT_NE(name.find("PreLoader"), std::string::npos);
    EXPECT_TRUE(probe.Probe(name));
    const auto pre = bench.EnumeratePreloaderDevices();
    ASSERT_EQ(pre.size(), 1u);
    EXPECT_EQ(pre[0].hubPort.hubId, "1-1");
    EXPECT_EQ(pre[0].hubPort.port, 1u);
    const int com = devices::PortNumberOf(devices::PortNameOf(name));
    bench.Unplug(0);
    EXPECT_EQ(bench.SerialNodeOf(com), "");
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

// The native engine over USB cannot reach a simulated phone; one with a socket can.
TEST(NativeSprdBench, WhichEngineLinesReachTheBenchAndWhatEachPhoneIs) {
    const std::pair<const char*, bool> lines[] = {
        {"quorvel-sprd-flash --package {package} --device {device}", true},
        {"/usr/bin/quorvel-sprd-flash --transport usb --phase {phase}", true},
        {"\"/opt/q/quorvel-sprd-flash\" --transport=usb", true},
        {"quorvel-sprd-flash --transport unix:/tmp/p.sock", false},
        {"quorvel-sprd-flash --transport=pty:/dev/pts/3", false},
        {"/opt/flash/sprd-flash --port {node}", false},
        {"\"unclosed", false},
        {"", false},
    };
    for (const auto& [line, usb] : lines) EXPECT_EQ(engine::IsNativeSprdOverUsb(line), usb) << line;

    engine::PhoneProfile p;
    EXPECT_EQ(SprdPhoneArgs(p), (std::vector<std::string>{"--reenumerate", "fdl2"}));
    p.sprdStays = true;
    p.sprdFault = "overrun";
    EXPECT_EQ(SprdPhoneArgs(p), (std::vector<std::string>{"--reenumerate", "none", "--fault", "overrun"}));
}

}  // namespace
}  // namespace quorvel::sim
