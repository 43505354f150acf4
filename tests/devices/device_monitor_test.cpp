#include <gtest/gtest.h>

#include <condition_variable>

#include "app/Messages.h"
#include "devices/DeviceMonitor.h"
#include "support/StationFixture.h"

namespace quorvel::devices {
namespace {

using namespace app;

// A backend whose lists the test sets by hand.
class FakeBackend final : public DeviceBackend {
public:
    std::vector<HubPortEntry> EnumerateHubPorts() override { return {}; }
    std::vector<DeviceInfo> EnumeratePreloaderDevices() override { return {}; }
    bool ServiceExists(const std::string& s) override {
        std::lock_guard g(m);
        return services.count(s) != 0;
    }
    std::optional<std::vector<std::string>> ServiceDevices(const std::string& s) override {
        std::lock_guard g(m);
        auto it = services.find(s);
        if (it == services.end() || !it->second) return std::nullopt;
        return *it->second;
    }
    PortTable BuildPortTable(const std::string&) override {
        std::lock_guard g(m);
        return table;
    }
    std::optional<std::string> FriendlyNameOf(const std::string& id) override {
        std::lock_guard g(m);
        auto it = names.find(id);
        if (it == names.end()) return std::nullopt;
        return it->second;
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

// Keeps a copy of every 6024 record, as the handler would.
class EventSink final : public platform::MessageWindow {
public:
    platform::LResult Send(std::uint32_t msg, platform::WParam w, platform::LParam) override {
        if (msg != MSG_DEVICE_EVENT) return 0;
        std::lock_guard g(m);
        records.push_back(*reinterpret_cast<const DeviceEventRecord*>(w));
        cv.notify_all();
        return 0;
    }
    void Post(std::uint32_t, platform::WParam, platform::LParam) override {}
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}
    bool AwaitCount(std::size_t n) {
        std::unique_lock lk(m);
        return cv.wait_for(lk, std::chrono::seconds(5), [&] { return records.size() >= n; });
    }
    std::vector<DeviceEventRecord> Records() {
        std::lock_guard g(m);
        return records;
    }

    std::mutex m;
    std::condition_variable cv;
    std::vector<DeviceEventRecord> records;
};

const char* const kPl = "USB\\VID_0E8D&PID_2000\\1-1.2:1.0";

class DeviceMonitorTest : public ::testing::Test {
protected:
    std::string Id(std::size_t i) { return FieldText(sink.Records().at(i).instanceId); }
    bool Arrived(std::size_t i) { return sink.Records().at(i).arrived == 1; }

    test::StationFixture f;
    Station& st = *f.station;
    FakeBackend backend;
    EventSink sink;
    DeviceMonitor monitor{st, backend, sink};
};

TEST_F(DeviceMonitorTest, FirstPassReportsAllThenReEnumerationIsRemovalBeforeArrival) {
    backend.services["wdm_usb"] = std::vector<std::string>{"USB\\VID_0E8D&PID_0003\\2-1.1:1.0", kPl};
    backend.table.Add("2-1\\PORT1", "USB\\VID_0E8D&PID_0003\\2-1.1:1.0");
    backend.names[kPl] = "Phone B (COM3)";
    st.stationRunning = true;
    monitor.Start();
    ASSERT_TRUE(sink.AwaitCount(2));
    auto r = sink.Records();
    EXPECT_EQ(FieldText(r[0].location), "2-1\\PORT1");
    EXPECT_EQ(FieldText(r[0].friendlyName), "USB\\VID_0E8D&PID_0003\\2-1.1:1.0");  // no name: the ID
    EXPECT_EQ(r[0].kind, 2u);
    EXPECT_EQ(FieldText(r[1].friendlyName), "Phone B (COM3)");
    EXPECT_EQ(FieldText(r[1].location), "");

    backend.SetList("wdm_usb", std::vector<std::string>{"USB\\VID_0E8D&PID_2001\\1-1.1:1.0", kPl});
    ASSERT_TRUE(sink.AwaitCount(4));
    EXPECT_EQ(Id(2), "USB\\VID_0E8D&PID_0003\\2-1.1:1.0");
    EXPECT_FALSE(Arrived(2));
    EXPECT_EQ(Id(3), "USB\\VID_0E8D&PID_2001\\1-1.1:1.0");
    EXPECT_TRUE(Arrived(3));
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
    backend.SetList("sprdvcom", std::vector<std::string>{longId});
    ASSERT_TRUE(sink.AwaitCount(1));
    const auto r = sink.Records();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(FieldText(r[0].instanceId), longId.substr(0, 63));
    EXPECT_EQ(FieldText(r[0].location), "1-2\\PORT3");  // looked up with the full ID
    EXPECT_EQ(r[0].kind, 3u);
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
    backend.services["usbser"] = std::vector<std::string>{};
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 1);
    backend.services["wdm_usb"] = std::nullopt;  // both: the one with a device list wins
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 1);
    backend.services["wdm_usb"] = std::vector<std::string>{};
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 0);

    st.package.kind = PACKAGE_MTK_CFG;
    EXPECT_TRUE(monitor.SelectMonitorService());
    EXPECT_EQ(monitor.MonitorService(), 3);
}

TEST_F(DeviceMonitorTest, ANewStartNeverLeavesTwoWatchesAndAStoppedOneEndsAtTheNextChange) {
    backend.services["wdm_usb"] = std::vector<std::string>{"A"};
    st.stationRunning = true;
    monitor.Start();
    ASSERT_TRUE(sink.AwaitCount(1));
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
    EXPECT_EQ(sink.Records().size(), 1u);
    backend.SetList("wdm_usb", std::vector<std::string>{"A", "B"});
    ASSERT_TRUE(sink.AwaitCount(3));
    EXPECT_EQ(Id(1), "A");
    EXPECT_EQ(Id(2), "B");
    ASSERT_TRUE(f.clock.AwaitWaiters(1));
    st.stationRunning = false;
    backend.SetList("wdm_usb", std::vector<std::string>{"B"});
    ASSERT_TRUE(sink.AwaitCount(4));  // the pass that was waiting still reports
    for (int i = 0; i < 500 && monitor.LiveWatches() > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(monitor.LiveWatches(), 0);
}

}  // namespace
}  // namespace quorvel::devices
