#include <gtest/gtest.h>
#include <unistd.h>

#include "devices/BenchSurvey.h"
#include "support/TempDir.h"

namespace quorvel::devices {
namespace {

// Each fact that is wrong yields its own finding; a set-up bench yields none.
TEST(BenchSurveyTest, EachProblemIsOneFindingWithItsFix) {
    const BenchFacts good{false,
                          true,
                          {},
                          {{"cdc_acm", DriverPresence::MODULE}},
                          true,
                          true,
                          {{"1-1.3", "/dev/ttyACM0", false, true, true}},
                          {{"pci-0000:00:14.0", 40}}};
    struct Case {
        const char* what;
        void (*spoil)(BenchFacts&);
        std::string problem, fix;  // the fix: a part of it
    };
    const Case cases[] = {
        {"rule", [](BenchFacts& f) { f.ruleInstalled = false; }, "the station's udev rule is not installed",
         "/usr/lib/udev/rules.d/"},
        {"modem manager", [](BenchFacts& f) { f.modemManagerRunning = true, f.phones[0].modemManagerIgnores = false; },
         "ModemManager is running and does not ignore the phones' serial ports", "udevadm trigger"},
        {"brltty", [](BenchFacts& f) { f.brlttyRules = {"/usr/lib/udev/rules.d/85-brltty.rules"}; },
         "brltty rules claim USB serial adapters: /usr/lib/udev/rules.d/85-brltty.rules", "remove brltty"},
        {"driver",
         [](BenchFacts& f) {
             f.drivers = {{"option", DriverPresence::MISSING}};
         },
         "the kernel has no option driver", "CONFIG_USB_SERIAL_OPTION"},
        {"group", [](BenchFacts& f) { f.groupExists = false; }, "the operator group quorvel does not exist",
         "groupadd"},
        {"member", [](BenchFacts& f) { f.userInGroup = false, f.phones.clear(); },
         "this user is not in the group quorvel", "usermod"},
        {"access", [](BenchFacts& f) { f.phones[0].accessible = false; }, "no access to /dev/ttyACM0", "udev rule"},
        {"autosuspend", [](BenchFacts& f) { f.phones[0].autosuspend = true; },
         "autosuspend is on for the phone at 1-1.3", "/sys/bus/usb/devices/1-1.3/power/control"},
        {"controller", [](BenchFacts& f) { f.controllers[0].second = 130; },
         "pci-0000:00:14.0 has 130 devices and sockets, more than the 127 it can address", "another USB controller"},
    };
    EXPECT_TRUE(CheckBench(good).empty());
    for (const Case& c : cases) {
        BenchFacts f = good;
        c.spoil(f);
        const auto found = CheckBench(f);
        ASSERT_EQ(found.size(), 1u) << c.what;
        EXPECT_EQ(found[0].problem, c.problem);
        EXPECT_NE(found[0].fix.find(c.fix), std::string::npos) << found[0].fix;
    }
}

// Outside the group, access may still come from the seat (the rule's uaccess tag) or
// from the nodes' own modes; only a user with neither is told to join.
TEST(BenchSurveyTest, GroupMembershipIsAskedForOnlyWhereNothingElseGivesAccess) {
    const std::vector<PhoneNode> open{{"1-1.3", "/dev/ttyACM0", false, true, true}};
    const std::vector<PhoneNode> closed{{"1-1.3", "/dev/ttyACM0", false, true, false}};
    const struct {
        const char* what;
        bool seat, rule;
        std::vector<PhoneNode> phones;
        std::vector<std::string> problems;
    } rows[] = {
        {"at the seat, no phone yet", true, true, {}, {}},
        {"at the seat, phone open", true, true, open, {}},
        {"at the seat without the rule",
         true,
         false,
         {},
         {"the station's udev rule is not installed", "this user is not in the group quorvel"}},
        {"remote, phone open", false, true, open, {}},
        {"remote, no phone", false, true, {}, {"this user is not in the group quorvel"}},
        {"remote, phone closed",
         false,
         true,
         closed,
         {"this user is not in the group quorvel", "no access to /dev/ttyACM0"}},
    };
    for (const auto& row : rows) {
        BenchFacts f{false, row.rule, {}, {}, true, false, row.phones, {}};
        f.activeOnSeat = row.seat;
        std::vector<std::string> problems;
        for (const auto& finding : CheckBench(f)) problems.push_back(finding.problem);
        EXPECT_EQ(problems, row.problems) << row.what;
    }
    // The seat is read from logind's seat files.
    test::TempDir run;
    platform::SysPaths paths;
    paths.runSystemd = run.Path();
    for (const uid_t uid : {::getuid() + 1, ::getuid()}) {
        run.Write("seats/seat0", "IS_SEAT0=1\nACTIVE=c2\nACTIVE_UID=" + std::to_string(uid) + "\n");
        EXPECT_EQ(GatherSystemFacts(paths).activeOnSeat, uid == ::getuid());
    }
}

TEST(BenchSurveyTest, SocketsShowTheSlotsBoundToThem) {
    test::TempDir dir;
    dir.Write("Config/CommonSetting.ini",
              "[USBPORTINFO]\nIndex0=hub\\PORT1\nIndex2=hub\\PORT2\n[BROMPORTINFO]\nIndex2=hub\\PORT1\n");
    std::vector<SocketRow> rows(3);
    rows[0].location = "hub\\PORT1", rows[1].location = "hub\\PORT2", rows[2].location = "hub\\PORT3";
    AddBindings(rows, dir.Path());
    EXPECT_EQ(rows[0].binding, "slot 1 (HS), slot 3 (LS)");
    EXPECT_EQ(rows[1].binding, "slot 3 (HS)");
    EXPECT_EQ(rows[2].binding, "");
}

}  // namespace
}  // namespace quorvel::devices
