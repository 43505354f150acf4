// A whole headless station on a real-bench device tree: the udev backend's monitor,
// binding and the jobs on simulated engines, with phones as the kernel presents them.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "UmockdevBench.h"
#include "devices/DeviceMonitor.h"
#include "devices/DeviceText.h"
#include "devices/KernelDrivers.h"
#include "slots/DownloadWorker.h"
#include "station/Messages.h"
#include "support/PacWriter.h"
#include "support/StationFixture.h"
#include "support/StationProcess.h"

namespace quorvel::devices {
namespace {

using namespace app;
using test::StationProcess;

engine::PhoneProfile Job(platform::Millis ms) {
    engine::PhoneProfile p;
    p.durationMs = ms;
    p.speedMBps = 0;
    return p;
}

class StationBenchTest : public test::UmockdevBench {
protected:
    void WriteSettings(const std::string& package = "fw/MT6765_Android_scatter.txt") {
        if (package.find("scatter") != std::string::npos) dir.Write(package, "scatter\n");
        dir.Write("Config/CommonSetting.ini",
                  test::UnboundSettings("CheckSum=0\nEnableDebug=1\nLANGUAGE=1033\nFilePath=" + dir.File(package) +
                                        "\n[BENCH]\nSimulated=0\n"));
    }
    // The debug log's lines.
    std::vector<std::string> Log() {
        std::vector<std::string> lines;
        for (const auto& e : std::filesystem::directory_iterator(dir.Path())) {
            if (e.path().string().find("UILog.txt") == std::string::npos) continue;
            std::ifstream in(e.path());
            for (std::string line; std::getline(in, line);) lines.push_back(line.substr(0, line.size() - 1));
        }
        return lines;
    }
    // Serial nodes are made in the station's own folder; the station looks for them there.
    platform::SysPaths SerialNodes() {
        nodes = dir.File("dev");
        std::filesystem::create_directories(nodes);
        platform::SysPaths paths;
        paths.dev = nodes;
        return paths;
    }
    int LogLines(const std::string& text) {
        const auto lines = Log();
        return static_cast<int>(std::count(lines.begin(), lines.end(), text));
    }

    test::TempDir dir;
};

// SPRD phones are known to their engine by port only: after X left, Y gets X's ttyUSB0
// on another socket, and Y's steps and progress must reach Y's row alone. Each phone
// leaves and comes back on its download port between the two phases, as it does.
TEST_F(StationBenchTest, AReusedPortNumberCarriesProgressOnlyToItsOwnSlot) {
    RUN_UNDER_UMOCKDEV();
    const std::string usb1 = RootHub("0000:00:14.0", "usb1", " 2.00", "480", "1");
    const std::string hub = Hub(usb1, "1-1", "1", "4");
    LoadDriver("option");
    std::filesystem::create_directories(dir.File("fw"));
    test::WritePac(dir.File("fw/phone.pac"), test::TypicalSprdPac());
    WriteSettings("fw/phone.pac");
    const platform::SysPaths paths = SerialNodes();
    StationProcess p(dir, paths);
    ASSERT_TRUE(p.Init());
    engine::PhoneProfile quick = Job(800);
    quick.sprdPhase1Ms = 400;
    p.rig->Phones().SetPortProfile(101, quick);
    std::atomic<int> switches = 0;
    p.rig->Phones().SetSwitchHook([&](const engine::SwitchEvent&) { ++switches; });
    p.PressStartStop();
    ASSERT_EQ(p.Button(), console::DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP);
    auto worker = [&](int slot) { return p.run->Manager().WorkerAt(slot); };
    auto row = [&](int slot) { return p.station->slotList.Row(slot); };
    // One phone through both phases: in, switched, out, back on its download port.
    auto serve = [&](const char* name, const char* devpath, int slot, int passes) {
        std::string phone = Phone(hub, name, "1782", "4d00", devpath, "SPRD U2S Diag", "ttyUSB0", false, "option");
        Announce(phone);
        const int before = switches;
        ASSERT_TRUE(StationProcess::Await([&] { return switches > before; }));
        Unplug(phone);
        // Back once its slot has ended the first phase, as a real phone's second of
        // re-enumeration gives it time to.
        ASSERT_TRUE(StationProcess::Await([&] {
            return worker(slot)->LastNotifyCode() == engine::NOTIFY_REMOVED &&
                   p.station->bindings.State(slot) == BindState::AllBinded;
        }));
        phone = Phone(hub, name, "1782", "4d00", devpath, "SPRD U2S Diag", "ttyUSB0", false, "option");
        Announce(phone);
        ASSERT_TRUE(
            StationProcess::Await([&] { return p.station->statistics.Total() == static_cast<std::uint32_t>(passes); }));
        Unplug(phone);
    };
    serve("1-1.1", "1.1", 0, 1);
    const app::SlotRow x = row(0);
    EXPECT_EQ(p.station->slotList.ResultText(0), "PASS(1/1)");
    serve("1-1.3", "1.3", 1, 2);
    EXPECT_EQ(p.station->bindings.HsLocation(1), "pci-0000:00:14.0-usbv2-0:1\\PORT3");
    EXPECT_EQ(p.station->slotList.ResultText(1), "PASS(1/1)");
    EXPECT_EQ(row(0).progress.position, x.progress.position);
    EXPECT_EQ(row(0).progress.text, x.progress.text);
    EXPECT_EQ(p.station->slotList.ResultText(0), "PASS(1/1)") << "X's row heard nothing of Y";
    EXPECT_EQ(p.station->statistics.Fail(), 0u);
}

// Smartphones in download mode show one vendor-class interface, no driver, no serial
// port: each gets its socket's own COM number and a slot, beside a CDC phone that is not
// the SPRD service's. R re-enumerates after its loader (out and back on its socket); S
// stays connected from boot ROM to reset, so the watch announces it again once its slot
// has left the first phase. Each reaches its second phase exactly once.
TEST_F(StationBenchTest, VendorInterfacePhonesReachTheSecondPhaseInBothShapes) {
    RUN_UNDER_UMOCKDEV();
    const std::string usb1 = RootHub("0000:00:14.0", "usb1", " 2.00", "480", "1");
    const std::string hub = Hub(usb1, "1-1", "1", "4");
    std::filesystem::create_directories(dir.File("fw"));
    test::WritePac(dir.File("fw/phone.pac"), test::TypicalSprdPac());
    WriteSettings("fw/phone.pac");
    const platform::SysPaths paths = SerialNodes();
    StationProcess p(dir, paths);
    ASSERT_TRUE(p.Init());
    const std::string socket = "pci-0000:00:14.0-usbv2-0:1\\PORT";
    const int r = UsbComNumber(socket + "1", {});
    const int s = UsbComNumber(socket + "3", [r](int n) { return n == r; });
    engine::PhoneProfile quick = Job(800);
    quick.sprdPhase1Ms = 400;
    p.rig->Phones().SetPortProfile(static_cast<unsigned long>(r), quick);
    p.rig->Phones().SetPortProfile(static_cast<unsigned long>(s), quick);
    std::atomic<int> switches = 0;
    p.rig->Phones().SetSwitchHook([&](const engine::SwitchEvent& e) {
        ++switches;
        if (e.comPort == static_cast<unsigned long>(s)) p.run->Monitor().PhaseOneSwitched(e.comPort);
    });
    Announce(Phone(hub, "1-1.2", "0e8d", "2000", "1.2", "MT65xx Preloader", "ttyACM0"));
    p.PressStartStop();
    ASSERT_EQ(p.Button(), console::DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP);
    auto vendorPhone = [&](const char* name, const char* devpath) {
        return Phone(hub, name, "1782", "4d00", devpath, "SPRD U2S Diag", nullptr, false, nullptr);
    };

    std::string phoneR = vendorPhone("1-1.1", "1.1");
    Announce(phoneR);
    ASSERT_TRUE(StationProcess::Await([&] { return switches == 1; }));
    Unplug(phoneR);
    // The watch hears of the switch while R is away: R's return is its only new arrival.
    p.run->Monitor().PhaseOneSwitched(static_cast<unsigned long>(r));
    ASSERT_TRUE(StationProcess::Await([&] {
        return p.run->Manager().WorkerAt(0)->LastNotifyCode() == engine::NOTIFY_REMOVED &&
               p.station->bindings.State(0) == BindState::AllBinded;
    }));
    phoneR = vendorPhone("1-1.1", "1.1");
    Announce(phoneR);
    ASSERT_TRUE(StationProcess::Await([&] { return p.station->statistics.Total() == 1; }));

    Announce(vendorPhone("1-1.3", "1.3"));
    ASSERT_TRUE(StationProcess::Await([&] { return p.station->statistics.Total() == 2; }));
    p.clock.Sleep(3 * devices::DeviceMonitor::kReannounceMs);  // nothing more is announced

    EXPECT_EQ(p.station->statistics.Fail(), 0u);
    EXPECT_EQ(p.station->bindings.HsLocation(0), socket + "1");
    EXPECT_EQ(p.station->bindings.HsLocation(1), socket + "3");
    EXPECT_EQ(p.station->bindings.HsLocation(2), "NA") << "the CDC phone is not the SPRD service's";
    EXPECT_EQ(p.station->slotList.ResultText(0), "PASS(1/1)");
    EXPECT_EQ(p.station->slotList.ResultText(1), "PASS(1/1)");
    const std::string nameR = "SPRD U2S Diag (COM" + std::to_string(r) + ")";
    const std::string nameS = "SPRD U2S Diag (COM" + std::to_string(s) + ")";
    EXPECT_EQ(LogLines(nameR), 3) << "in, out, back";
    EXPECT_EQ(LogLines(nameS), 2) << "in, announced again";
    p.PressStartStop();
}

// One 2.0 hub serves both speeds: a phone's boot ROM (full speed) and its DA (high speed)
// enumerate on the same socket. Two phones switch together and their DA forms come back
// in the other order; each goes to the slot that held it in boot ROM, not the first
// DA_BINDED one.
TEST_F(StationBenchTest, PhonesSwitchingToDaTogetherEachKeepTheirSlot) {
    RUN_UNDER_UMOCKDEV();
    const std::string usb1 = RootHub("0000:00:14.0", "usb1", " 2.00", "480", "1");
    const std::string hub = Hub(usb1, "1-1", "1", "4");
    LoadDriver("cdc_acm");
    WriteSettings();
    const platform::SysPaths paths = SerialNodes();
    StationProcess p(dir, paths);
    ASSERT_TRUE(p.Init());
    const std::string socket = "pci-0000:00:14.0-usbv2-0:1\\PORT";
    struct Socket {
        const char* name;
        const char* devpath;
        const char* tty;
        std::string brom;
    } phones[] = {{"1-1.1", "1.1", "ttyACM0", ""}, {"1-1.3", "1.3", "ttyACM1", ""}};
    std::mutex lock;
    std::vector<std::string> switched;  // instance IDs, as the engines report them
    p.rig->Phones().SetSwitchHook([&](const engine::SwitchEvent& e) {
        std::lock_guard g(lock);
        switched.push_back(e.instanceId);
    });
    for (const Socket& s : phones)
        p.rig->Phones().SetProfile("USB\\VID_0E8D&PID_0003\\" + std::string(s.name) + ":1.0", Job(6000));
    p.PressStartStop();
    ASSERT_EQ(p.Button(), console::DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP);
    for (Socket& s : phones) {
        s.brom = Phone(hub, s.name, "0e8d", "0003", s.devpath, "MT65xx BROM", s.tty);
        mock.setAttribute(tb, s.brom.c_str(), "speed", "12");
        Announce(s.brom);
    }
    ASSERT_TRUE(StationProcess::Await([&] {
        std::lock_guard g(lock);
        return switched.size() == 2;
    }));
    for (const Socket& s : phones) Unplug(s.brom);
    for (const Socket& s : {phones[1], phones[0]})
        Announce(Phone(hub, s.name, "0e8d", "2001", s.devpath, "MTK USB Port", s.tty));
    ASSERT_TRUE(StationProcess::Await([&] { return p.station->statistics.Total() == 2; }));
    EXPECT_EQ(p.station->statistics.Fail(), 0u);
    for (int slot : {0, 1}) {
        const std::string location = socket + (slot == 0 ? "1" : "3");
        EXPECT_EQ(p.station->bindings.LsLocation(slot), location) << slot;
        EXPECT_EQ(p.station->bindings.HsLocation(slot), location) << slot;
        EXPECT_EQ(p.station->bindings.State(slot), BindState::AllBinded) << slot;
    }
    EXPECT_EQ(p.station->slotList.RowCount(), 2);
    p.PressStartStop();
}

// The start-up bench check of a real bench: every finding in the log, and the station
// comes up all the same.
TEST_F(StationBenchTest, StartUpBenchCheckLogsEveryFindingAndNeverHoldsUpStartUp) {
    RUN_UNDER_UMOCKDEV();
    const std::string usb1 = RootHub("0000:00:14.0", "usb1", " 2.00", "480", "4");
    const std::string phone = Phone(usb1, "1-1", "0e8d", "2000", "1", "MT65xx Preloader", "ttyACM0");
    mock.setAttribute(tb, phone.c_str(), "power/control", "auto");
    mock.setProperty(tb, (phone + "/1-1:1.0/ttyACM0").c_str(), "ID_MM_DEVICE_IGNORE", "1");
    // A smartphone served through its USB node, which is not there either.
    const std::string vendor = Phone(usb1, "1-2", "1782", "4d00", "2", "SPRD U2S Diag", nullptr, false, nullptr);
    for (auto [key, value] : {std::pair{"busnum", "1"}, {"devnum", "9"}, {"power/control", "auto"}})
        mock.setAttribute(tb, vendor.c_str(), key, value);
    mock.setProperty(tb, vendor.c_str(), "ID_MM_DEVICE_IGNORE", "1");
    test::TempDir roots;  // rules, modules, processes
    roots.Write("rules/70-quorvel-station.rules", "");
    roots.Write("modules/" + KernelRelease() + "/modules.builtin", "kernel/drivers/usb/serial/usbserial.ko\n");
    roots.Write("proc/1/comm", "ModemManager\n");
    struct Case {
        const char* what;
        void (*spoil)(const test::TempDir&);
        std::string first;
    };
    const Case cases[] = {
        {"a driver missing", [](const test::TempDir&) {}, "the kernel has no option driver"},
        {"no rule",
         [](const test::TempDir& r) {
             std::filesystem::remove(r.File("rules/70-quorvel-station.rules"));
             r.Write("modules/" + KernelRelease() + "/modules.dep", "kernel/drivers/usb/serial/option.ko.xz:\n");
         },
         "the station's udev rule is not installed"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        c.spoil(roots);
        WriteSettings();
        platform::SysPaths paths;
        paths.udevRules = paths.etcUdevRules = roots.File("rules");
        paths.modules = roots.File("modules");
        paths.proc = roots.File("proc");
        paths.dev = roots.File("dev");  // the phone's node is not there: no access
        StationProcess p(dir, paths);
        ASSERT_TRUE(p.Init());
        // The phone's findings come last: the check has ended once they are logged.
        std::vector<std::string> problems;
        ASSERT_TRUE(StationProcess::Await([&] {
            problems.clear();
            for (const auto& line : Log())
                if (line.rfind("bench check: ", 0) == 0) problems.push_back(line.substr(13, line.find("; fix: ") - 13));
            return !problems.empty() && problems.back().rfind("autosuspend", 0) == 0;
        }));
        EXPECT_EQ(problems.front(), c.first);
        EXPECT_EQ(p.station->view.Notice(), "bench check: " + c.first);  // outlives the clock's ticks
        // Found on every run: the phone's node and its autosuspend; ModemManager only
        // while the rule that tells it to keep off is missing.
        for (const std::string& also :
             {"no access to " + roots.File("dev") + "/ttyACM0", std::string("autosuspend is on for the phone at 1-1"),
              "no access to " + roots.File("dev") + "/bus/usb/001/009",
              std::string("autosuspend is on for the phone at 1-2")})
            EXPECT_NE(std::find(problems.begin(), problems.end(), also), problems.end()) << also;
        const bool modemManager = std::any_of(problems.begin(), problems.end(),
                                              [](const std::string& x) { return x.rfind("ModemManager", 0) == 0; });
        EXPECT_EQ(modemManager, c.first == "the station's udev rule is not installed");
        for (const auto& e : std::filesystem::directory_iterator(dir.Path()))
            if (e.path().string().find("UILog.txt") != std::string::npos) std::filesystem::remove(e.path());
    }
}

}  // namespace
}  // namespace quorvel::devices
