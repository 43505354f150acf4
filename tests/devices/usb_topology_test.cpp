#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "devices/KernelDrivers.h"
#include "devices/UsbTopology.h"

namespace quorvel::devices {
namespace {

TEST(UsbTopologyTest, OneInterfacePerPhone) {
    using F = InterfaceFacts;
    struct Case {
        const char* what;
        std::vector<F> in;
        std::vector<std::string> chosen;
    };
    const Case cases[] = {
        {"CDC pair: the control half",
         {{"1-1.2:1.1", "1-1.2", kCdcDataClass, false}, {"1-1.2:1.0", "1-1.2", 0x02, true}},
         {"1-1.2:1.0"}},
        {"port not there yet: still the control half, never the data half",
         {{"1-1.2:1.0", "1-1.2", 0x02, false}, {"1-1.2:1.1", "1-1.2", kCdcDataClass, false}},
         {"1-1.2:1.0"}},
        {"several serial interfaces: the one with the port",
         {{"1-3:1.0", "1-3", 0xFF, false}, {"1-3:1.2", "1-3", 0xFF, true}, {"1-3:1.3", "1-3", 0xFF, true}},
         {"1-3:1.2"}},
        {"two phones, sorted",
         {{"1-4:1.0", "1-4", 0x02, true}, {"1-3:1.0", "1-3", 0x02, true}},
         {"1-3:1.0", "1-4:1.0"}},
        {"data half alone is nobody", {{"1-5:1.1", "1-5", kCdcDataClass, false}}, {}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> got;
        for (std::size_t i : PhoneInterfaces(c.in)) got.push_back(c.in[i].sysname);
        EXPECT_EQ(got, c.chosen) << c.what;
    }

    // Served through its USB node: the vendor interface of a download-mode phone, while no
    // serial driver holds it (an engine's claim shows as usbfs).
    const std::tuple<const char*, const char*, const char*, const char*, bool> usb[] = {
        {"1782", "4d00", "ff", "", true},  {"1782", "4d00", "ff", "usbfs", true},
        {"1782", "4d03", "ff", "", true},  {"1782", "4d00", "ff", "option", false},
        {"1782", "4d00", "02", "", false}, {"0e8d", "2000", "ff", "", false},
        {"1782", "4d01", "ff", "", false},
    };
    for (const auto& [vid, pid, cls, driver, served] : usb)
        EXPECT_EQ(IsUsbDownloadInterface(vid, pid, cls, driver), served)
            << vid << ":" << pid << " " << cls << " " << driver;
}

TEST(UsbTopologyTest, HubsAreNamedByPhysicalPathAndUsb11RootHubsSkipped) {
    struct Case {
        HubFacts hub;
        std::string identity;
    };
    const Case cases[] = {
        {{"pci-0000:00:14.0-usbv2-0:1", "pci-0000:00:14.0", "1", "1-1", false}, "pci-0000:00:14.0-usbv2-0:1"},
        {{"", "pci-0000:00:14.0", "0", "usb3", false}, "pci-0000:00:14.0-usbv2"},
        {{"", "pci-0000:03:00.0", "1.4", "5-1.4", true}, "pci-0000:03:00.0-usbv3-0:1.4"},
        {{"", "", "1", "1-1", false}, "1-1"},  // no controller known: the sysfs name is all there is
    };
    for (const Case& c : cases) EXPECT_EQ(HubIdentity(c.hub), c.identity);
    EXPECT_EQ(SocketLocation("pci-0000:00:14.0-usbv2-0:1", 3), "pci-0000:00:14.0-usbv2-0:1\\PORT3");

    EXPECT_TRUE(IsUsb11RootHub(true, " 1.10", "12"));
    EXPECT_TRUE(IsUsb11RootHub(true, "", "12"));
    EXPECT_FALSE(IsUsb11RootHub(true, " 2.00", "480"));
    EXPECT_FALSE(IsUsb11RootHub(false, " 1.10", "12")) << "an external full-speed hub has sockets";

    const std::pair<const char*, unsigned> ports[] = {{"1.4", 4}, {"3", 3}, {"0", 0}, {"", 0}, {"1.x", 0}, {"1.", 0}};
    for (const auto& [devpath, port] : ports) EXPECT_EQ(PortOfDevpath(devpath), port) << devpath;
}

TEST(KernelDriversTest, LoadedBuiltInInstallableOrMissing) {
    namespace fs = std::filesystem;
    const fs::path root = fs::temp_directory_path() / ("quorvel-kd-" + std::to_string(::getpid()));
    platform::SysPaths paths;
    paths.sys = (root / "sys").string();
    paths.modules = (root / "lib").string();
    fs::create_directories(root / "sys/bus/usb/drivers/cdc_acm");
    fs::create_directories(root / "lib/6.1.0");
    std::ofstream(root / "lib/6.1.0/modules.builtin") << "kernel/drivers/usb/serial/usbserial.ko\n";
    std::ofstream(root / "lib/6.1.0/modules.dep")
        << "kernel/drivers/usb/serial/option.ko.xz: kernel/drivers/usb/serial/usb_wwan.ko.xz\n"
           "kernel/drivers/usb/class/cdc-wdm.ko.zst:\n";
    const std::pair<const char*, DriverPresence> cases[] = {
        {"cdc_acm", DriverPresence::LOADED},   {"usbserial", DriverPresence::BUILT_IN},
        {"option", DriverPresence::MODULE},    {"cdc_wdm", DriverPresence::MODULE},
        {"usb_wwan", DriverPresence::MISSING}, {"", DriverPresence::MISSING},
    };
    for (const auto& [driver, presence] : cases)
        EXPECT_EQ(DriverPresenceOf(paths, "6.1.0", driver), presence) << driver;
    EXPECT_EQ(DriverPresenceOf(paths, "5.0.0", "option"), DriverPresence::MISSING) << "another kernel's modules";
    fs::remove_all(root);
}

}  // namespace
}  // namespace quorvel::devices
