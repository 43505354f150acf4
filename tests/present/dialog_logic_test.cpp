#include <gtest/gtest.h>

#include <thread>

#include "present/AboutDialogLogic.h"
#include "present/SettingsDialogLogic.h"
#include "support/StationFixture.h"

namespace quorvel::app {
namespace {

// The dialog's one-second settling waits run in virtual time: a helper thread moves it on.
struct TimeMover {
    explicit TimeMover(platform::ManualClock& c)
        : clock(c), thread([this] {
              while (!done) {
                  if (clock.AwaitWaiters(1, 50)) clock.AdvanceToNextDeadline();
              }
          }) {}
    ~TimeMover() {
        done = true;
        thread.join();
    }
    platform::ManualClock& clock;
    std::atomic<bool> done{false};
    std::thread thread;
};

class SettingsDialogTest : public ::testing::Test {
protected:
    test::StationFixture f;
    TimeMover mover{f.clock};
    PackageSelection& pkg = f.station->package;
    std::string file(const std::string& name) {
        f.dir.Write(name, "x");
        return f.dir.File(name);
    }
};

TEST_F(SettingsDialogTest, ScatterPackagePreselectsByDownloadType) {
    pkg.kind = PackageKind::MtkScatter;
    pkg.scatterFilePath = "/fw/MT_scatter.txt";
    for (auto [type, entry] : {std::pair{8, 3}, {1, 0}, {0, 1}, {3, 2}, {5, 0}}) {
        pkg.downloadType = type;
        SettingsDialogLogic d(*f.station, f.ui.Teller());
        d.Open();
        EXPECT_EQ(d.Selected(), entry) << "DownloadType " << type;
        EXPECT_EQ(d.Entries().size(), 4u);
        EXPECT_EQ(d.PathText(), "/fw/MT_scatter.txt");
    }
}

TEST_F(SettingsDialogTest, FormatAllWarnsOnceAndSetsTypeZero) {
    const auto path = file("fw/MT6580_Android_scatter.txt");
    SettingsDialogLogic d(*f.station, f.ui.Teller());
    d.Open();
    d.Load(path);
    EXPECT_EQ(pkg.kind, PackageKind::MtkScatter);
    d.Select(1);
    ASSERT_TRUE(d.Ok());
    EXPECT_EQ(pkg.downloadType, 0);
    EXPECT_FALSE(pkg.reserveUserData);
    EXPECT_EQ(pkg.firmwareFolder, f.dir.File("fw/"));
    EXPECT_EQ(f.ui.Messages(), (std::vector<std::string>{"The FormatAll mode will clear NV data"}));

    d.Select(3);
    ASSERT_TRUE(d.Ok());
    EXPECT_EQ(pkg.downloadType, 8);
    EXPECT_TRUE(pkg.reserveUserData);
}

TEST_F(SettingsDialogTest, PacDisablesTheListOkKeepsDownloadTypeCancelKeepsTheKind) {
    pkg.kind = PackageKind::MtkCfg;
    pkg.pacFilePath = "/old/b.pac";
    pkg.downloadType = 3;
    pkg.prepared = true;
    SettingsDialogLogic cancelled(*f.station, f.ui.Teller());
    cancelled.Open();
    cancelled.Load(file("a.pac"));
    EXPECT_FALSE(cancelled.ListEnabled());
    EXPECT_FALSE(pkg.prepared);
    cancelled.Cancel();
    EXPECT_EQ(pkg.kind, PackageKind::SprdPac);
    EXPECT_EQ(pkg.pacFilePath, "/old/b.pac");
    EXPECT_EQ(cancelled.PathText(), "");

    SettingsDialogLogic d(*f.station, f.ui.Teller());
    d.Open();
    d.Load(file("a.pac"));
    ASSERT_TRUE(d.Ok());
    EXPECT_EQ(pkg.downloadType, 3);
    EXPECT_EQ(pkg.pacFilePath, f.dir.File("a.pac"));
}

TEST_F(SettingsDialogTest, KindRulesAndRefusals) {
    SettingsDialogLogic d(*f.station, f.ui.Teller());
    d.Open();
    EXPECT_FALSE(d.Ok());
    d.Load(std::string("/fw/scatter.txt.cfg"));
    EXPECT_EQ(pkg.kind, PackageKind::MtkCfg);
    EXPECT_EQ(d.Entries().size(), 2u);
    d.Load(std::string("/fw/readme.md"));
    EXPECT_EQ(pkg.kind, PackageKind::MtkCfg) << "no match keeps the kind";
    EXPECT_FALSE(d.Ok()) << "a file that does not exist";
    d.Load(std::nullopt);
    EXPECT_EQ(d.PathText(), "/fw/readme.md");
    EXPECT_EQ(f.ui.Messages(), (std::vector<std::string>{"Please select folder for upgrading!",
                                                         "Please select MTK Scatter file first!"}));
}

TEST_F(SettingsDialogTest, CfgBackupRestoreFromSettingOrEntry) {
    f.station->settings.BackupandRestore = 0;
    SettingsDialogLogic d(*f.station, f.ui.Teller());
    d.Open();
    d.Load(file("p.cfg"));
    d.Select(1);
    ASSERT_TRUE(d.Ok());
    EXPECT_TRUE(pkg.cfgBackupRestore);
    d.Select(0);
    ASSERT_TRUE(d.Ok());
    EXPECT_FALSE(pkg.cfgBackupRestore);
    f.station->settings.BackupandRestore = 1;
    ASSERT_TRUE(d.Ok());
    EXPECT_TRUE(pkg.cfgBackupRestore);
}

TEST(AboutDialogTest, LanguageButtonsAndRestart) {
    test::StationFixture f;
    EngineVersions v;
    v.daVersion = "1.2";
    v.daBuild = "b7";
    AboutDialogLogic same(*f.station, v, "", "", "");
    EXPECT_EQ(same.Preselected(), AboutDialogLogic::AUTO);
    EXPECT_EQ(same.EngineLines()[1], "DA_v:1.2; Build:b7");
    EXPECT_EQ(same.EngineLines()[2], "; Build:");
    same.Confirm(AboutDialogLogic::AUTO);
    EXPECT_FALSE(f.station->restartRequired);

    AboutDialogLogic toEnglish(*f.station, v, "", "", "");
    toEnglish.Confirm(AboutDialogLogic::ENGLISH);
    EXPECT_EQ(f.station->language.LanguageId(), 1033u);
    EXPECT_TRUE(f.station->restartRequired);

    f.station->restartRequired = false;
    AboutDialogLogic toChinese(*f.station, v, "", "", "");
    EXPECT_EQ(toChinese.Preselected(), AboutDialogLogic::ENGLISH);
    toChinese.Confirm(AboutDialogLogic::CHINESE);
    EXPECT_EQ(f.station->language.LanguageId(), 2052u);
    EXPECT_TRUE(f.station->restartRequired);
}

}  // namespace
}  // namespace quorvel::app
