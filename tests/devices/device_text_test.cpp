#include <gtest/gtest.h>

#include <set>

#include "devices/DeviceBackend.h"
#include "devices/DeviceMonitor.h"
#include "devices/DeviceText.h"

namespace quorvel::devices {
namespace {

TEST(DeviceText, ClassesPortNamesAndSerialNodes) {
    const std::pair<const char*, PidClass> classes[] = {
        {"USB\\VID_0E8D&PID_0003\\2-1.3:1.0", PidClass::BROM},
        {"usb\\vid_0e8d&pid_2000\\1-1.3:1.0", PidClass::PRELOADER},
        {"USB\\VID_0E8D&PID_2001\\1-1.3:1.0", PidClass::DA},
        {"USB\\VID_1782&PID_4D00\\1-1.3:1.0", PidClass::OTHER},
        {"USB\\VID_0E8D&PID_0003\\PID_2001", PidClass::DA},  // the later test wins: DA beats BROM
    };
    for (const auto& [id, cls] : classes) EXPECT_EQ(ClassOf(id), cls) << id;

    // The port is the first parenthesised group; its number follows "COM".
    const std::tuple<const char*, const char*, int> names[] = {
        {"MTK USB Port (COM5)", "COM5", 5},
        {"Phone (Android) (COM12)", "Android", 0},
        {"COM7)", "COM7", 7},
        {"Port (COM8", "COM8", 8},
        {"COM9", "COM9", 9},
        {"COM", "COM", 0},
    };
    for (const auto& [name, port, number] : names) {
        EXPECT_EQ(PortNameOf(name), port) << name;
        EXPECT_EQ(PortNumberOf(port), number) << name;
    }

    const std::pair<const char*, int> nodes[] = {{"ttyACM0", 1},     {"ttyACM7", 8},   {"ttyUSB0", 101},
                                                 {"ttyUSB155", 256}, {"ttyUSB156", 0}, {"ttyACM100", 0},
                                                 {"ttyS0", 0},       {"ttyACMx", 0}};
    for (const auto& [node, com] : nodes) EXPECT_EQ(ComNumberOfNode(node), com) << node;
    for (int n : {1, 8, 100, 101, 140}) EXPECT_EQ(ComNumberOfNode(NodeOfComNumber(n)), n) << n;
    EXPECT_EQ(NodeOfComNumber(0), "");
    EXPECT_EQ(NodeOfComNumber(257), "") << "a worker reads no port past 256";

    const std::pair<const char*, int> ends[] = {{"SPRD U2S Diag (COM203)", 203},
                                                {"Port (COM7) x", 0},
                                                {"Port (COMx)", 0},
                                                {"(COM0)", 0},
                                                {"(COM257)", 0},
                                                {"(AB12)", 0},
                                                {"", 0}};
    for (const auto& [name, n] : ends) EXPECT_EQ(ComNumberOfName(name), n) << name;
    EXPECT_TRUE(IsUsbNode("/dev/bus/usb/001/007"));
    EXPECT_FALSE(IsUsbNode("/dev/ttyUSB0"));
}

// A socket served through its USB node keeps its number, never meets a number in use,
// and stays inside COM 201..256 (the worker reads at most 256).
TEST(DeviceText, SocketsWithoutASerialNodeGetStableNumbersOfTheirOwn) {
    const std::string a = "pci-0000:00:14.0-usbv2-0:1\\PORT1", b = "pci-0000:00:14.0-usbv2-0:1\\PORT2";
    const int n = UsbComNumber(a, {});
    EXPECT_TRUE(IsUsbComNumber(n)) << n;
    EXPECT_EQ(UsbComNumber(a, {}), n);
    EXPECT_NE(UsbComNumber(b, {}), n) << "neighbouring sockets should rarely collide";
    // Taken numbers move it down, wrapping within the range.
    EXPECT_EQ(UsbComNumber(a, [n](int c) { return c == n; }), n == kUsbComFirst ? kUsbComLast : n - 1);
    std::set<int> seen;
    for (int i = 0; i < kUsbComLast - kUsbComFirst + 1; ++i) {
        const int c = UsbComNumber(a, [&](int x) { return seen.count(x) > 0; });
        ASSERT_TRUE(IsUsbComNumber(c));
        seen.insert(c);
    }
    EXPECT_EQ(UsbComNumber(a, [](int) { return true; }), 0) << "all taken";
    EXPECT_EQ(NodeOfComNumber(kUsbComFirst), "ttyUSB100") << "the range sits above any bench's serial nodes";
}

TEST(PortTableTest, FirstDeviceAtALocationWinsAndEmptyLocationsAreLeftOut) {
    PortTable t;
    t.Add("1-1\\PORT2", "USB\\VID_0E8D&PID_2000\\1-1.2");
    t.Add("1-1\\PORT2", "USB\\VID_0E8D&PID_2000\\1-1.2:1.0");
    t.Add("", "USB\\VID_0E8D&PID_2000\\x");
    ASSERT_EQ(t.locations.size(), 1u);
    EXPECT_EQ(t.instanceIds[0], "USB\\VID_0E8D&PID_2000\\1-1.2");
    // Looked up with "#" removed and case ignored, by containment.
    EXPECT_EQ(LocationIn(t, "usb\\vid_0e8d&pid_2000\\1-1.#2"), "1-1\\PORT2");
    EXPECT_EQ(LocationIn(t, "USB\\VID_0E8D&PID_2001\\1-1.2"), "");
}

TEST(MonitorTest, ListDiffAndServiceChoice) {
    const auto d = DiffLists({"A", "B", "C"}, {"D", "C", "A", "E"});
    EXPECT_EQ(d.removed, (std::vector<std::string>{"B"}));
    EXPECT_EQ(d.arrived, (std::vector<std::string>{"D", "E"}));

    using app::EventKind;
    const std::tuple<int, const char*, EventKind> choices[] = {{0, "wdm_usb", EventKind::MTK},
                                                               {1, "usbser", EventKind::MTK},
                                                               {2, "sprdvcom", EventKind::SPRD},
                                                               {3, "wdm_usb", EventKind::CFG},
                                                               {4, "vendor_usb", EventKind::MTK}};
    for (const auto& [service, name, kind] : choices) {
        const MonitorChoice c = MonitorChoiceOf(service, "vendor_usb");
        EXPECT_EQ(c.service, name) << service;
        EXPECT_EQ(EventKindOf(c.contextKind), kind) << service;
    }
}

}  // namespace
}  // namespace quorvel::devices
