// The udev backend against mocked sysfs trees.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "UmockdevBench.h"
#include "devices/DeviceMonitor.h"
#include "devices/DeviceText.h"
#include "devices/KernelDrivers.h"
#include "devices/UdevBackend.h"
#include "support/TempDir.h"

namespace quorvel::devices {
namespace {

class UdevBackendTest : public test::UmockdevBench {
protected:
    // Two controllers: a 2.0 one with a chain of two hubs, and a 1.1 companion.
    void BuildBench() {
        root = RootHub("0000:00:14.0", "usb1", " 2.00", "480", "2");
        RootHub("0000:00:1d.0", "usb2", " 1.10", "12", "2");
        hub = Hub(root, "1-1", "1", "4");
        chained = Hub(hub, "1-1.2", "1.2", "4");
        Phone(chained, "1-1.2.1", "0e8d", "2000", "1.2.1", "MT65xx Preloader", "ttyACM0");
        Phone(chained, "1-1.2.3", "0e8d", "0003", "1.2.3", "MT65xx BROM", "ttyACM1");
        Phone(hub, "1-1.3", "1234", "2000", "1.3", "Gadget", "ttyACM2");  // not a preloader
        Phone(hub, "1-1.4", "1782", "4d00", "1.4", "SPRD U2S Diag", "ttyUSB0", false, "option");
        // A smartphone in download mode: its vendor interface unbound, no serial port.
        const std::string usb = Phone(hub, "1-1.1", "1782", "4d00", "1.1", "SPRD U2S Diag", nullptr, false, nullptr);
        mock.setAttribute(tb, usb.c_str(), "busnum", "1");
        mock.setAttribute(tb, usb.c_str(), "devnum", "5");
    }

    std::string root, hub, chained;
};

const std::map<std::string, std::string> kAliases{
    {"usbser", "cdc_acm"}, {"wdm_usb", "cdc_acm"}, {"sprdvcom", "option"}};
const std::string kHs = "pci-0000:00:14.0-usbv2";

TEST_F(UdevBackendTest, ABenchGivesOneDevicePerPhoneAtSocketsNamedByPhysicalPath) {
    RUN_UNDER_UMOCKDEV();
    BuildBench();
    UdevBackend backend({}, kAliases);

    // The 1.1 root hub is left out; the others by physical path, never by bus number.
    std::vector<std::string> hubs;
    for (const auto& p : backend.EnumerateHubPorts())
        if (p.port == 1) hubs.push_back(p.hubId);
    EXPECT_EQ(hubs, (std::vector<std::string>{"USB\\VID_1D6B&PID_0002\\usb1", "USB\\VID_1A40&PID_0101\\1-1",
                                              "USB\\VID_1A40&PID_0101\\1-1.2"}));
    EXPECT_EQ(backend.EnumerateHubPorts().size(), 10u);

    struct Row {
        const char* service;
        std::string id, location, name;
    };
    const int usbCom = UsbComNumber(kHs + "-0:1\\PORT1", {});
    const std::string usbComName = "COM" + std::to_string(usbCom);
    const Row rows[] = {
        {"wdm_usb", "USB\\VID_0E8D&PID_2000\\1-1.2.1:1.0", kHs + "-0:1.2\\PORT1", "MT65xx Preloader (COM1)"},
        {"wdm_usb", "USB\\VID_0E8D&PID_0003\\1-1.2.3:1.0", kHs + "-0:1.2\\PORT3", "MT65xx BROM (COM2)"},
        {"wdm_usb", "USB\\VID_1234&PID_2000\\1-1.3:1.0", kHs + "-0:1\\PORT3", "Gadget (COM3)"},
        {"sprdvcom", "USB\\VID_1782&PID_4D00\\1-1.1:1.0", kHs + "-0:1\\PORT1", "SPRD U2S Diag (" + usbComName + ")"},
        {"sprdvcom", "USB\\VID_1782&PID_4D00\\1-1.4:1.0", kHs + "-0:1\\PORT4", "SPRD U2S Diag (COM101)"},
    };
    std::map<std::string, std::vector<std::string>> ids;
    for (const Row& r : rows) {
        SCOPED_TRACE(r.id);
        ids[r.service].push_back(r.id);
        EXPECT_EQ(LocationIn(backend.BuildPortTable(r.service), r.id), r.location);
        EXPECT_EQ(backend.FriendlyNameOf(r.id), r.name);
    }
    // Never the data half of a CDC pair.
    for (const auto& [service, list] : ids) EXPECT_EQ(backend.ServiceDevices(service), list) << service;
    EXPECT_EQ(backend.SerialNodeOf(101), "/dev/ttyUSB0");
    EXPECT_EQ(backend.SerialNodeOf(usbCom), "/dev/bus/usb/001/005");
    // What an engine is started with for a port: its phone and socket.
    const auto served = backend.DeviceOfPort(usbCom);
    ASSERT_TRUE(served);
    EXPECT_EQ(served->instanceId + " " + served->location, rows[3].id + " " + rows[3].location);
    ASSERT_TRUE(backend.DeviceOfPort(101));
    EXPECT_EQ(backend.DeviceOfPort(101)->location, rows[4].location);
    EXPECT_FALSE(backend.DeviceOfPort(usbCom == 256 ? 255 : usbCom + 1));

    // The socket map shows the same locations, with what is plugged in.
    const auto sockets = backend.Sockets();
    ASSERT_EQ(sockets.size(), 10u);
    auto at = [&](const std::string& location) {
        const auto r =
            std::find_if(sockets.begin(), sockets.end(), [&](const SocketRow& x) { return x.location == location; });
        return r == sockets.end() ? "?" : r->ids + " " + r->cls + " " + r->driver + " " + r->node + " " + r->com;
    };
    EXPECT_EQ(at(kHs + "-0:1.2\\PORT1"), "0e8d:2000 02 cdc_acm /dev/ttyACM0 COM1");
    EXPECT_EQ(at(kHs + "-0:1.2\\PORT4"), "    ");
    EXPECT_EQ(at(kHs + "-0:1\\PORT1"), "1782:4d00 ff  /dev/bus/usb/001/005 " + usbComName);
    EXPECT_EQ(at(kHs + "-0:1\\PORT2"), "1a40:0101 09   ") << "a hub shows no serial node of its own";

    // Only the vendor's preloader is picked up at start-up.
    const auto pre = backend.EnumeratePreloaderDevices();
    ASSERT_EQ(pre.size(), 1u);
    EXPECT_EQ(pre[0].friendlyName, "MT65xx Preloader (COM1)");
    EXPECT_EQ(pre[0].hubPort.hubId, "USB\\VID_1A40&PID_0101\\1-1.2");
    EXPECT_EQ(pre[0].hubPort.port, 1u);
}

// Late serial ports, reused port numbers, the watch and the bench check are tested
// through a whole station: the scenario files played on udev.

TEST_F(UdevBackendTest, ADriverThatIsInstallableButNotLoadedCountsAsPresent) {
    RUN_UNDER_UMOCKDEV();
    BuildBench();
    test::TempDir modules;
    platform::SysPaths paths;
    paths.modules = modules.Path();
    UdevBackend backend(paths,
                        {{"usbser", "option_gone"}, {"sprdvcom", "option_gone"}, {"custom", "usbserial_generic"}});
    modules.Write(KernelRelease() + "/modules.builtin", "");
    EXPECT_FALSE(backend.ServiceExists("usbser"));
    // Its phones served through their USB node need no driver.
    EXPECT_TRUE(backend.ServiceExists("sprdvcom"));
    EXPECT_EQ(backend.ServiceDevices("sprdvcom"), std::vector<std::string>{"USB\\VID_1782&PID_4D00\\1-1.1:1.0"});
    modules.Write(KernelRelease() + "/modules.dep",
                  "kernel/drivers/usb/serial/option_gone.ko.zst: kernel/drivers/usb/serial/usbserial.ko.zst\n");
    EXPECT_TRUE(backend.ServiceExists("usbser"));
    EXPECT_EQ(backend.ServiceDevices("usbser"), std::nullopt) << "no device list before it is loaded";
    EXPECT_TRUE(backend.ServiceExists("cdc_acm")) << "loaded";
    EXPECT_FALSE(backend.ServiceExists("custom"));
}

}  // namespace
}  // namespace quorvel::devices
