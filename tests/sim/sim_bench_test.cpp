#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "devices/ComProbe.h"
#include "devices/DeviceMonitor.h"
#include "devices/DeviceTestKit.h"
#include "devices/DeviceText.h"
#include "sim/Scenario.h"
#include "sim/SimBench.h"
#include "sim/SimEngineProgram.h"
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

TEST(ScenarioTest, ParsesStepsAndOptions) {
    const auto s = ParseScenario(
        "# bench\n0 press\n200 plug 0 brom\n200 plug 1 sprd fail step=2 duration=3000 size=64 misbehave=crash\n\n9000 "
        "unplug 0\n"
        "9000 serial-delay 300\n9500 plug 2 sprd stay fault=signature@system\n15000 end # done\n");
    ASSERT_TRUE(s);
    ASSERT_EQ(s->steps.size(), 7u);
    EXPECT_TRUE(s->steps[5].profile.sprdStays);
    EXPECT_EQ(s->steps[5].profile.sprdFault, "signature@system");
    EXPECT_EQ(s->steps[4].action, ScenarioStep::SERIAL_DELAY);
    EXPECT_EQ(s->steps[4].delay, 300);
    EXPECT_EQ(s->steps[2].action, ScenarioStep::PLUG);
    EXPECT_EQ(s->steps[2].kind, PhoneKind::SPRD);
    EXPECT_FALSE(s->steps[2].profile.pass);
    EXPECT_EQ(s->steps[2].profile.failingStep, 2);
    EXPECT_EQ(s->steps[2].profile.durationMs, 3000);
    EXPECT_EQ(s->steps[2].profile.sizeBytes, 64u << 20);
    EXPECT_EQ(s->steps[2].profile.misbehave, "crash");
    EXPECT_EQ(s->steps[3].socket, 0);
    EXPECT_EQ(s->end, 15000);

    const auto checks = ParseScenario(
        "#@ engines: sim program\n#@ speed: 4\n0 set [BENCH] Hubs 2\n0 set package pac\n"
        "1 await 500 slot 3 result ~ PASS(1/1)\n2 expect messages \"\"\n2 await idle\n3 restart\n");
    ASSERT_TRUE(checks);
    EXPECT_EQ(checks->engines, (std::vector<std::string>{"sim", "program"}));
    EXPECT_EQ(checks->speed, 4);
    ASSERT_EQ(checks->steps.size(), 6u);
    EXPECT_EQ(checks->steps[0].section + " " + checks->steps[0].key + " " + checks->steps[0].value, "BENCH Hubs 2");
    EXPECT_EQ(checks->steps[1].section + "|" + checks->steps[1].key + "|" + checks->steps[1].value, "|package|pac");
    const ScenarioCheck& await = checks->steps[2].check;
    EXPECT_EQ(await.subject, (std::vector<std::string>{"slot", "3", "result"}));
    EXPECT_TRUE(await.contains);
    EXPECT_EQ(await.expected, "PASS(1/1)");
    EXPECT_EQ(await.timeout, 500);
    EXPECT_EQ(checks->steps[3].check.expected, "");
    EXPECT_EQ(checks->steps[4].check.expected, "yes");  // a yes/no subject alone
    EXPECT_EQ(checks->steps[5].action, ScenarioStep::RESTART);
}

// Each look at the station sees the total one higher; a restart is refused.
struct CountingHost final : ScenarioHost {
    bool Up(std::string&) override { return true; }
    SimBench* Bench() override { return nullptr; }
    void Press() override {}
    void Menu(const std::string&, int) override {}
    bool Running() override { return false; }
    std::string Observe(const std::vector<std::string>&) override { return std::to_string(++looks); }
    bool Set(const std::string&, const std::string&, const std::string&, std::string&) override { return true; }
    bool Restart(std::string& why) override { return why = "refused", false; }
    bool WriteFile(const std::string&, const std::string&, std::string& why) override { return why = "full", false; }
    int looks = 0;
};

TEST(ScenarioTest, AFailedStepEndsTheScenarioWithItsLineAndWhatWasSeen) {
    const std::pair<const char*, const char*> plays[] = {
        {"0 await 100 total 3\n0 expect total 3\n", "line 2: expected total \"3\", saw \"4\""},
        // Looked at 0, 20, 40 and 60 ms.
        {"0 await 50 total 99\n9 press\n", "line 1: waited 50 ms for total \"99\", saw \"4\""},
        {"0 expect total ~ 2\n", "line 1: expected total ~ \"2\", saw \"1\""},
        {"0 expect total !~ 2\n0 expect total !~ 2\n", "line 2: expected total !~ \"2\", saw \"2\""},
        {"0 set [BENCH] Hubs 2\n0 restart\n", "line 2: restart: refused"},
        {"0 plug 1 brom\n", "line 1: no simulated bench ([BENCH] Simulated=1)"},
        {"0 write fw/a.txt \"\"\n", "line 1: write fw/a.txt: full"},
        {"0 auto brom\n", "line 1: no simulated bench ([BENCH] Simulated=1)"},
        {"0 await total 2\n0 expect total 3\n", ""},
    };
    for (const auto& [text, failure] : plays) {
        platform::ManualClock clock;
        test::ClockDriver driver(clock);
        CountingHost host;
        const auto log = RunScenario(*ParseScenario(text), clock, host);
        EXPECT_EQ(log.failure, failure) << text;
    }
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

TEST(ScenarioTest, RefusesWithTheLine) {
    std::string error;
    EXPECT_FALSE(ParseScenario("10 press\n5 press\n", &error));
    EXPECT_EQ(error, "line 2: time goes back");
    EXPECT_FALSE(ParseScenario("0 plug 1 toaster\n", &error));
    EXPECT_EQ(error, "line 1: unknown phone \"toaster\"");
    EXPECT_FALSE(ParseScenario("0 plug 1 brom colour=red\n", &error));
    EXPECT_FALSE(ParseScenario("0 plug 1 brom misbehave=dance\n", &error));
    EXPECT_FALSE(ParseScenario("0 plug 1 sprd fault=\n", &error));
    EXPECT_FALSE(ParseScenario("0 plug 256 brom\n", &error));
    EXPECT_FALSE(ParseScenario("-1 press\n", &error));
    EXPECT_FALSE(ParseScenario("0 end\n1 press\n", &error));
    EXPECT_EQ(error, "line 2: a step after \"end\"");
    const std::pair<const char*, const char*> refused[] = {
        {"0 await\n", "line 1: nothing to look at"},
        {"0 expect 100 total 2\n", "line 1: unknown subject \"100\""},  // a timeout is for await
        {"0 expect weather sunny\n", "line 1: unknown subject \"weather\""},
        {"0 expect slot 3 colour red\n", "line 1: unknown field \"colour\""},
        {"0 expect slot x result PASS\n", "line 1: \"slot\" wants a number and a field"},
        {"0 expect socket 1 result PASS\n", "line 1: unknown field \"result\""},
        {"0 set BENCH Hubs 2\n", "line 1: not a step: \"set\""},
        {"0 restart now\n", "line 1: not a step: \"restart\""},
        {"0 write ../x.txt y\n", "line 1: not a step: \"write\""},    // only inside the station folder
        {"0 menu remove-binding\n", "line 1: not a step: \"menu\""},  // which row
        {"0 menu paint\n", "line 1: not a step: \"menu\""},
        {"0 expect file /etc/passwd\n", "line 1: \"file\" wants a path inside the station folder"},
        {"0 expect setting COMMON\n", "line 1: \"setting\" wants a section and a key"},
        {"0 auto toaster\n", "line 1: unknown phone \"toaster\""},
        {"#@ engines: toaster\n", "line 1: unknown engines \"toaster\""},
        {"#@ speed: 0\n", "line 1: a speed from 1 to 1000"},
        {"#@ colour: red\n", "line 1: a header line is \"#@ engines: ...\" or \"#@ speed: N\""},
    };
    for (const auto& [text, why] : refused) {
        EXPECT_FALSE(ParseScenario(text, &error)) << text;
        EXPECT_EQ(error, why) << text;
    }
}

}  // namespace
}  // namespace quorvel::sim
