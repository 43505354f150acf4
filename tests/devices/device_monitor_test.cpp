#include <gtest/gtest.h>

#include <condition_variable>

#include "app/Messages.h"
#include "devices/DeviceMonitor.h"
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

    std::mutex m;
    std::map<std::string, std::optional<std::vector<std::string>>> services;
    PortTable table;
    std::map<std::string, std::string> names;
    ChangeSignal changes;
};

// Keeps every device event as "+id name @location kind" ("-" for a removal).
class EventSink final : public platform::MessageWindow {
public:
    platform::LResult Send(std::uint32_t msg, platform::WParam w, platform::LParam) override {
        if (msg != MSG_DEVICE_EVENT) return 0;
        const auto& r = *reinterpret_cast<const DeviceEventRecord*>(w);
        std::lock_guard g(m);
        seen.push_back((r.arrived ? "+" : "-") + FieldText(r.instanceId) + " " + FieldText(r.friendlyName) + " @" +
                       FieldText(r.location) + " " + std::to_string(r.kind));
        cv.notify_all();
        return 0;
    }
    void Post(std::uint32_t, platform::WParam, platform::LParam) override {}
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
};

class DeviceMonitorTest : public ::testing::Test {
protected:
    test::StationFixture f;
    Station& st = *f.station;
    FakeBackend backend;
    EventSink sink;
    DeviceMonitor monitor{st, backend, sink};
};

TEST_F(DeviceMonitorTest, FirstPassReportsAllThenReEnumerationIsRemovalBeforeArrival) {
    backend.services["wdm_usb"] = Ids{"USB\\BROM\\2-1.1", "USB\\PL\\1-1.2"};
    backend.table.Add("2-1\\PORT1", "USB\\BROM\\2-1.1");
    backend.names["USB\\PL\\1-1.2"] = "Phone B (COM3)";
    st.stationRunning = true;
    monitor.Start();
    // Without a name the ID stands in for it.
    EXPECT_EQ(sink.Await(2), (Ids{"+USB\\BROM\\2-1.1 USB\\BROM\\2-1.1 @2-1\\PORT1 2",  //
                                  "+USB\\PL\\1-1.2 Phone B (COM3) @ 2"}));
    backend.SetList("wdm_usb", Ids{"USB\\DA\\1-1.1", "USB\\PL\\1-1.2"});
    const auto seen = sink.Await(4);
    EXPECT_EQ(Ids(seen.begin() + 2, seen.end()), (Ids{"-USB\\BROM\\2-1.1 USB\\BROM\\2-1.1 @2-1\\PORT1 2",  //
                                                      "+USB\\DA\\1-1.1 USB\\DA\\1-1.1 @ 2"}));
    st.stationRunning = false;
    monitor.Retire();
}

TEST_F(DeviceMonitorTest, NoDeviceListYetMeansNoEventsUntilTheFirstDevice) {
    backend.services["sprdvcom"] = std::nullopt;
    st.package.kind = PACKAGE_SPRD_PAC;
    ASSERT_TRUE(monitor.SelectMonitorService());
    st.stationRunning = true;
    monitor.Start();
    const std::string longId = "USB\\VID_1782&PID_4D00\\" + std::string(80, '7');
    backend.table.Add("1-2\\PORT3", longId);
    backend.SetList("sprdvcom", Ids{longId});
    // Texts are cut to their fields; the location is looked up with the full ID.
    const std::string cut = longId.substr(0, 63);
    EXPECT_EQ(sink.Await(1), Ids{"+" + cut + " " + cut + " @1-2\\PORT3 3"});
    st.stationRunning = false;
    monitor.Retire();
}

TEST_F(DeviceMonitorTest, ServiceChoiceByPackageKind) {
    st.package.kind = PACKAGE_SPRD_PAC;
    EXPECT_FALSE(monitor.SelectMonitorService());
    EXPECT_EQ(f.ui.Messages(), std::vector<std::string>{"sprdvcom service is not found"});

    st.package.kind = PACKAGE_MTK_SCATTER;
    st.settings.ServiceNameList = {"vendor_a", "vendor_b"};
    backend.services["vendor_b"] = std::nullopt;
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 4);
    EXPECT_EQ(monitor.ConfiguredService(), "vendor_b");
    backend.services["usbser"] = Ids{};
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 1);
    backend.services["wdm_usb"] = std::nullopt;  // both: the one with a device list wins
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 1);
    backend.services["wdm_usb"] = Ids{};
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 0);

    st.package.kind = PACKAGE_MTK_CFG;
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 3);
}

TEST_F(DeviceMonitorTest, ANewStartNeverLeavesTwoWatchesAndAStoppedOneEndsAtTheNextChange) {
    backend.services["wdm_usb"] = Ids{"A"};
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
    EXPECT_EQ(sink.Await(3), (Ids{"+A A @ 2", "+A A @ 2", "+B B @ 2"}));
    ASSERT_TRUE(f.clock.AwaitWaiters(1));
    st.stationRunning = false;
    backend.SetList("wdm_usb", Ids{"B"});
    EXPECT_EQ(sink.Await(4).back(), "-A A @ 2");  // the pass that was waiting still reports
    for (int i = 0; i < 500 && monitor.LiveWatches() > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(monitor.LiveWatches(), 0);
}

}  // namespace
}  // namespace quorvel::devices
