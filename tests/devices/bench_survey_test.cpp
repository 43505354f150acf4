#include <gtest/gtest.h>
#include <unistd.h>

#include <set>
#include <sstream>

#include "devices/BenchSurvey.h"
#include "support/Golden.h"
#include "support/TempDir.h"

namespace quorvel::devices {
namespace {

// One line of tests/golden/bench-survey/findings.txt: what differs from a set-up bench,
// as words; the answer is each finding and its fix.
std::string Findings(const std::string& line) {
    BenchFacts f{false,
                 true,
                 {},
                 {{"cdc_acm", DriverPresence::MODULE}},
                 true,
                 true,
                 {{"1-1.3", "/dev/ttyACM0", false, true, true}},
                 {{"pci-0000:00:14.0", 40}}};
    static const std::set<std::string> kWords{
        "set-up", "no-rule",  "modem-manager", "brltty",     "missing-driver",     "no-group",
        "seat",   "no-phone", "closed",        "not-member", "controller-devices", "autosuspend"};
    std::istringstream words(line);
    for (std::string w; words >> w;) {
        const auto eq = w.find('=');
        const std::string key = w.substr(0, eq), value = eq == std::string::npos ? "" : w.substr(eq + 1);
        if (!kWords.contains(key)) return "bad word: " + w;
        if (key == "no-rule") f.ruleInstalled = false;
        if (key == "modem-manager") f.modemManagerRunning = true, f.phones[0].modemManagerIgnores = false;
        if (key == "brltty") f.brlttyRules = {value};
        if (key == "missing-driver") f.drivers = {{value, DriverPresence::MISSING}};
        if (key == "no-group") f.groupExists = false;
        if (key == "not-member") f.userInGroup = false;
        if (key == "seat") f.activeOnSeat = true;
        if (key == "no-phone") f.phones.clear();
        if (key == "closed") f.phones[0].accessible = false;
        if (key == "autosuspend") f.phones[0].autosuspend = true;
        if (key == "controller-devices") f.controllers[0].second = std::stoi(value);
    }
    std::string out;
    for (const auto& finding : CheckBench(f)) out += finding.problem + "\n  fix: " + finding.fix + "\n";
    return out.empty() ? "nothing to fix" : out;
}

TEST(BenchSurveyTest, EachProblemIsOneFindingWithItsFix) {
    EXPECT_TRUE(test::MatchesCaseGolden("bench-survey/findings.txt", Findings));
}

TEST(BenchSurveyTest, TheSeatIsReadFromLogindsSeatFiles) {
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
