#include <gtest/gtest.h>

#include "devices/DeviceBackend.h"
#include "devices/DeviceMonitor.h"
#include "devices/DeviceText.h"

namespace quorvel::devices {
namespace {

TEST(DeviceText, ClassIsTakenFromTheProductIdAndTheLaterTestWins) {
    EXPECT_EQ(ClassOf("USB\\VID_0E8D&PID_0003\\2-1.3:1.0"), PID_BROM);
    EXPECT_EQ(ClassOf("usb\\vid_0e8d&pid_2000\\1-1.3:1.0"), PID_PRELOADER);
    EXPECT_EQ(ClassOf("USB\\VID_0E8D&PID_2001\\1-1.3:1.0"), PID_DA);
    EXPECT_EQ(ClassOf("USB\\VID_1782&PID_4D00\\1-1.3:1.0"), PID_OTHER);
    // A serial part that happens to read like another product id: DA beats BROM.
    EXPECT_EQ(ClassOf("USB\\VID_0E8D&PID_0003\\PID_2001"), PID_DA);
}

TEST(DeviceText, PortNameFollowsTheParenthesisRules) {
    EXPECT_EQ(PortNameOf("MTK USB Port (COM5)"), "COM5");
    EXPECT_EQ(PortNameOf("Phone (Android) (COM12)"), "Android");
    EXPECT_EQ(PortNameOf("COM7)"), "COM7");
    EXPECT_EQ(PortNameOf("Port (COM8"), "COM8");
    EXPECT_EQ(PortNameOf("COM9"), "COM9");
    EXPECT_EQ(PortNumberOf("COM12"), 12);
    EXPECT_EQ(PortNumberOf("Android"), 0);
    EXPECT_EQ(PortNumberOf("COM"), 0);
}

TEST(DeviceText, SerialNodesMapToComNumbersBothWays) {
    EXPECT_EQ(ComNumberOfNode("ttyACM0"), 1);
    EXPECT_EQ(ComNumberOfNode("ttyACM7"), 8);
    EXPECT_EQ(ComNumberOfNode("ttyUSB0"), 101);
    EXPECT_EQ(ComNumberOfNode("ttyS0"), 0);
    EXPECT_EQ(ComNumberOfNode("ttyACMx"), 0);
    for (int n : {1, 8, 100, 101, 140}) EXPECT_EQ(ComNumberOfNode(NodeOfComNumber(n)), n) << n;
    EXPECT_EQ(NodeOfComNumber(0), "");
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

TEST(MonitorDiff, RemovalsInOldOrderThenArrivalsInNewOrder) {
    const auto d = DiffLists({"A", "B", "C"}, {"D", "C", "A", "E"});
    EXPECT_EQ(d.removed, (std::vector<std::string>{"B"}));
    EXPECT_EQ(d.arrived, (std::vector<std::string>{"D", "E"}));
    // Listed again: not reported; gone and back between passes: not reported.
    const auto same = DiffLists({"A"}, {"A"});
    EXPECT_TRUE(same.removed.empty() && same.arrived.empty());
}

TEST(MonitorChoiceTest, ServicesAndEventKinds) {
    EXPECT_EQ(MonitorChoiceOf(0, "x").service, "wdm_usb");
    EXPECT_EQ(MonitorChoiceOf(1, "x").service, "usbser");
    EXPECT_EQ(MonitorChoiceOf(2, "x").service, "sprdvcom");
    EXPECT_EQ(MonitorChoiceOf(4, "vendor_usb").service, "vendor_usb");
    EXPECT_EQ(EventKindOf(MonitorChoiceOf(0, "").contextKind), 2u);
    EXPECT_EQ(EventKindOf(MonitorChoiceOf(2, "").contextKind), 3u);
    EXPECT_EQ(EventKindOf(MonitorChoiceOf(3, "").contextKind), 4u);
    EXPECT_EQ(EventKindOf(MonitorChoiceOf(4, "").contextKind), 2u);
}

}  // namespace
}  // namespace quorvel::devices
