#include <gtest/gtest.h>

#include <condition_variable>

#include "devices/DeviceMonitor.h"
#include "station/Messages.h"
#include "support/StationFixture.h"

namespace quorvel::devices {
namespace {

using namespace app;
using Ids = std::vector<std::string>;

// A backend whose lists the test sets by hand.
class FakeBackend final : public DeviceBackend {
public:
    std::vector<HubPortEntry> EnumerateHubPorts() override { return {}; }
    std::vector<DeviceInfo> EnumeratePreloaderDevices() override { return {}; }
    bool ServiceExists(const std::string& s) override {
        std::lock_guard g(m);
        return services.contains(s);
    }
    std::optional<std::vector<std::string>> ServiceDevices(const std::string& s) override {
        std::lock_guard g(m);
        ++passes;
        return services.contains(s) ? services.at(s) : std::nullopt;
    }
    PortTable BuildPortTable(const std::string&) override {
        std::lock_guard g(m);
        return table;
    }
    std::optional<std::string> FriendlyNameOf(const std::string& id) override {
        std::lock_guard g(m);
        return names.contains(id) ? std::optional(names.at(id)) : std::nullopt;
    }
    std::string SerialNodeOf(int) override { return ""; }
    ChangeSignal& Changes() override { return changes; }

    void SetList(const std::string& service, std::optional<std::vector<std::string>> list) {
        {
            std::lock_guard g(m);
            services[service] = std::move(list);
        }
        changes.Notify();
    }
    void SetName(const std::string& id, const std::string& name) {
        std::lock_guard g(m);
        names[id] = name;
    }
    int Passes() {
        std::lock_guard g(m);
        return passes;
    }

    std::mutex m;
    std::map<std::string, std::optional<std::vector<std::string>>> services;
    PortTable table;
    std::map<std::string, std::string> names;
    ChangeSignal changes;
    int passes = 0;
};

// Keeps every device event as "+id name @location kind" ("-" for a removal).
class EventSink final : public app::MessageWindow {
public:
    platform::LResult Send(app::Message message) override {
        const auto* r = std::get_if<DeviceEvent>(&message);
        if (!r) return 0;
        std::lock_guard g(m);
        if (clock) at.push_back(clock->Now());
        seen.push_back((r->arrived ? "+" : "-") + r->instanceId + " " + r->friendlyName + " @" + r->location + " " +
                       std::to_string(static_cast<std::uint32_t>(r->kind)));
        cv.notify_all();
        return 0;
    }
    void Post(app::Message) override {}
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}
    // The events once there are `n`, or fewer after five seconds.
    Ids Await(std::size_t n) {
        std::unique_lock lk(m);
        cv.wait_for(lk, std::chrono::seconds(5), [&] { return seen.size() >= n; });
        return seen;
    }

    std::mutex m;
    std::condition_variable cv;
    Ids seen;
    platform::Clock* clock = nullptr;
    std::vector<platform::Millis> at;  // virtual time of each event, when `clock` is set
};

class DeviceMonitorTest : public ::testing::Test {
protected:
    test::StationFixture f;
    Station& st = *f.station;
    FakeBackend backend;
    EventSink sink;
    DeviceMonitor monitor{st, backend, sink};
};

// No device list yet means no events until the first device; then the first pass
// reports all, texts cut to their fields (the location looked up with the full ID), and a
// re-enumeration is a removal before an arrival.
TEST_F(DeviceMonitorTest, FirstListReportsAllThenReEnumerationIsRemovalBeforeArrival) {
    backend.services["sprdvcom"] = std::nullopt;
    st.package.kind = PackageKind::SprdPac;
    ASSERT_EQ(monitor.SelectMonitorService(), "");
    const std::string longId = "USB\\VID_1782&PID_4D00\\" + std::string(80, '7'), cut = longId.substr(0, 63);
    backend.table.Add("1-2\\PORT3", longId);
    backend.names = {{longId, longId + " (COM1)"}, {"PL", "Phone B (COM3)"}, {"DA", "Phone A (COM2)"}};
    st.stationRunning = true;
    monitor.Start();
    backend.SetList("sprdvcom", Ids{longId, "PL"});
    EXPECT_EQ(sink.Await(2), (Ids{"+" + cut + " " + cut + " @1-2\\PORT3 3", "+PL Phone B (COM3) @ 3"}));
    backend.SetList("sprdvcom", Ids{"DA", "PL"});
    const auto seen = sink.Await(4);
    EXPECT_EQ(Ids(seen.begin() + 2, seen.end()),
              (Ids{"-" + cut + " " + cut + " @1-2\\PORT3 3", "+DA Phone A (COM2) @ 3"}));
    st.stationRunning = false;
    monitor.Retire();
}

// A phone is reported once its serial port is there, at most kSerialPortWaitMs late.
TEST_F(DeviceMonitorTest, LateSerialPortIsAwaitedReportedOnceAndNeverLost) {
    constexpr platform::Millis kWait = DeviceMonitor::kSerialPortWaitMs;
    struct Step {
        platform::Millis at;
        std::optional<std::string> name;  // the device's friendly name from then on
        bool listed;
    };
    struct Case {
        const char* what;
        std::vector<Step> steps;
        Ids events;
        std::vector<platform::Millis> at;
    };
    const Case cases[] = {
        {"port 300 ms late", {{0, "X", true}, {300, "X (COM3)", true}}, {"+X X (COM3) @ 2"}, {300}},
        {"port never comes", {{0, std::nullopt, true}, {kWait, "X", true}}, {"+X X @ 2"}, {kWait}},
        {"leaves while awaited, back with a port",
         {{0, "X", true}, {100, "X", false}, {kWait - 100, "X (COM1)", true}},
         {"+X X (COM1) @ 2"},
         {kWait - 100}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        test::StationFixture fx;
        FakeBackend fake;
        EventSink events;
        events.clock = &fx.clock;
        DeviceMonitor watch{*fx.station, fake, events};
        fake.services["wdm_usb"] = Ids{};
        fx.station->stationRunning = true;
        watch.Start();
        // Each change or passed deadline is one pass; wait for it to end.
        auto settle = [&](int before) {
            for (int i = 0; i < 1000 && fake.Passes() == before; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ASSERT_TRUE(fx.clock.AwaitWaiters(1));
        };
        settle(0);
        for (const Step& s : c.steps) {
            const int before = fake.Passes();
            const bool deadline = fx.clock.Now() < kWait && s.at >= kWait;
            fx.clock.AdvanceTo(s.at);
            if (deadline && fake.Passes() == before) settle(before);
            const int again = fake.Passes();
            if (s.name) fake.SetName("X", *s.name);
            fake.SetList("wdm_usb", s.listed ? Ids{"X"} : Ids{});
            settle(again);
        }
        fx.clock.Advance(10 * kWait);  // nothing more comes, however long we wait
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(events.Await(c.events.size()), c.events);
        EXPECT_EQ(events.at, c.at);
        fx.station->stationRunning = false;
        watch.Retire();
    }
}

TEST_F(DeviceMonitorTest, ServiceChoiceByPackageKind) {
    st.package.kind = PackageKind::SprdPac;
    EXPECT_EQ(monitor.SelectMonitorService(), "sprdvcom service is not found");

    st.package.kind = PackageKind::MtkScatter;
    st.settings.ServiceNameList = {"vendor_a", "vendor_b"};
    backend.services["vendor_b"] = std::nullopt;
    EXPECT_EQ(monitor.SelectMonitorService(), "");
    EXPECT_EQ(monitor.MonitorService(), 4);
    EXPECT_EQ(monitor.ConfiguredService(), "vendor_b");
    backend.services["usbser"] = Ids{};
    EXPECT_EQ(monitor.SelectMonitorService(), "");
    EXPECT_EQ(monitor.MonitorService(), 1);
    backend.services["wdm_usb"] = std::nullopt;  // both: the one with a device list wins
    EXPECT_EQ(monitor.SelectMonitorService(), "");
    EXPECT_EQ(monitor.MonitorService(), 1);
    backend.services["wdm_usb"] = Ids{};
    EXPECT_EQ(monitor.SelectMonitorService(), "");
    EXPECT_EQ(monitor.MonitorService(), 0);

    st.package.kind = PackageKind::MtkCfg;
    EXPECT_EQ(monitor.SelectMonitorService(), "");
    EXPECT_EQ(monitor.MonitorService(), 3);
}

TEST_F(DeviceMonitorTest, ANewStartNeverLeavesTwoWatchesAndAStoppedOneEndsAtTheNextChange) {
    backend.services["wdm_usb"] = Ids{"A"};
    backend.names = {{"A", "A (COM1)"}, {"B", "B (COM2)"}};
    st.stationRunning = true;
    monitor.Start();
    ASSERT_EQ(sink.Await(1).size(), 1u);
    ASSERT_TRUE(f.clock.AwaitWaiters(1));  // back in its wait
    // Stopped: the watch still waits for the next change.
    st.stationRunning = false;
    EXPECT_EQ(monitor.LiveWatches(), 1);
    // Started again before any change: the old watch is retired, the new one is alone
    // and reads the list only at the next change, reporting it whole.
    st.stationRunning = true;
    monitor.Start();
    for (int i = 0; i < 500 && monitor.LiveWatches() > 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(monitor.LiveWatches(), 1);
    EXPECT_EQ(sink.Await(0).size(), 1u);
    backend.SetList("wdm_usb", Ids{"A", "B"});
    EXPECT_EQ(sink.Await(3), (Ids{"+A A (COM1) @ 2", "+A A (COM1) @ 2", "+B B (COM2) @ 2"}));
    ASSERT_TRUE(f.clock.AwaitWaiters(1));
    st.stationRunning = false;
    backend.SetList("wdm_usb", Ids{"B"});
    EXPECT_EQ(sink.Await(4).back(), "-A A (COM1) @ 2");  // the pass that was waiting still reports
    for (int i = 0; i < 500 && monitor.LiveWatches() > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(monitor.LiveWatches(), 0);
}

}  // namespace
}  // namespace quorvel::devices
