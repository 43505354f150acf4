#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "platform/DayLog.h"
#include "platform/ExeDir.h"
#include "platform/ProfileIni.h"
#include "station/Texts.h"
#include "support/StationFixture.h"
#include "support/Unprivileged.h"

namespace quorvel::app {
namespace {

using platform::ProfileIni;
using test::StationFixture;

// One slot's locations, port and state as "hs|ls|com|STATE".
std::string Slot(const Station& st, int n) {
    const auto e = st.bindings.Get(n);
    return e.hs + "|" + e.ls + "|" + e.com + "|" + BindStateName(st.bindings.State(n));
}

TEST(SettingsLoadTest, ValuesAreConvertedOnlyWhenNonEmpty) {
    StationFixture f;
    f.WriteSettings(
        "[COMMON]\nSleepTimeRestart=\nBattery=abc\nCheckSum= 0 \nFlashCheckSum=\nDA_BR=\"BR name\"\n"
        "MTK_SERVICE_NAME=wdm_usb,,usbser, x\nNVDATAZIP=-1\nBromLog=4294967297\nDA_PL=" +
        std::string(100, 'p') + "\n[MEMORYTEST]\nPatternNum=7\nDataBus=\n");
    ASSERT_EQ(f.station->settingsStore.SettingsLoad(), 1);
    const Settings& s = f.station->settings;
    EXPECT_EQ(s.SleepTimeRestart, 10000u);
    EXPECT_EQ(s.Battery, 0u);
    EXPECT_EQ(s.CheckSum, 0u);
    EXPECT_EQ(s.FlashCheckSum, 0u);
    EXPECT_EQ(s.DA_BR, "BR name");
    EXPECT_EQ(s.DA_PL, std::string(63, 'p'));  // text options are cut to 63 characters
    EXPECT_EQ(s.NVDATAZIP, 0xFFFFFFFFu);
    EXPECT_EQ(s.BromLog, 1u);  // modulo 2^32
    EXPECT_EQ(s.ServiceNameList, (std::vector<std::string>{"wdm_usb", "usbser", " x"}));
    EXPECT_EQ(s.memoryTest.PatternNum, 7u);
    EXPECT_EQ(s.memoryTest.DataBus, 1u);
}

TEST(SettingsLoadTest, MissingFileShowsThePathAndErrorCode) {
    StationFixture f;
    EXPECT_EQ(f.station->settingsStore.LanguageLoad(), 0);
    EXPECT_EQ(f.station->settingsStore.SettingsLoad(), 0);
    EXPECT_EQ(f.station->settingsStore.MissingFileProblem(),
              "the config file path is " + f.SettingsFile() + ",The last error code: 2");
}

TEST(MachineStampRuleTest, MatchingStampLoadsTheBindingTable) {
    StationFixture f;
    f.WriteSettings(
        "[COMMON]\nMac=00-11-22-33-44-55\nFilePath=D:\\fw\\MT6580_Android_scatter.txt\nHasScan=1\n"
        "[USBPORTINFO]\nIndex0=hubA\\PORT1\nIndex1=NA\nIndex2=hubA\\PORT3\n"
        "[BROMPORTINFO]\nIndex0=hubB\\PORT1\nIndex1=hubB\\PORT2\nIndex2=NA\n"
        "[COM]\nIndex0=Diag (COM3)\n");
    ASSERT_EQ(f.station->settingsStore.SettingsLoad(), 1);
    EXPECT_EQ(Slot(*f.station, 0), "hubA\\PORT1|hubB\\PORT1|Diag (COM3)|ALL_BINDED");
    // HS "NA": the boot-ROM location is discarded and the slot stays idle.
    EXPECT_EQ(Slot(*f.station, 1), "NA|NA||IDLE");
    EXPECT_EQ(Slot(*f.station, 2), "hubA\\PORT3|NA||PRELOADER_BINDED");
    // Both keys absent: empty locations, and an empty location counts as bound.
    EXPECT_EQ(Slot(*f.station, 5), "|||ALL_BINDED");

    EXPECT_EQ(f.station->package.kind, PackageKind::MtkScatter);
    EXPECT_EQ(f.station->package.firmwareFolder, "D:\\fw\\");
    EXPECT_EQ(f.station->settings.HasScan, 1u);
    EXPECT_EQ(f.station->view.Pane(0), "Software Path: \"D:\\fw\\MT6580_Android_scatter.txt\"");
    EXPECT_EQ(f.station->view.Text(IDC_PATH_BANNER), "D:\\fw\\MT6580_Android_scatter.txt");
    EXPECT_EQ(f.station->view.Text(IDC_TOTAL), "0") << "statistics were loaded";
    EXPECT_TRUE(std::ifstream(f.dir.File("Config/TestResult.ini")).good());
}

TEST(MachineStampRuleTest, ForeignStampUnbindsEverythingAndIsRewritten) {
    StationFixture f;
    f.dir.Write("Config/TestResult.ini", "[total]\nNUM=40\n[fail]\nNUM=2\n");
    f.WriteSettings(
        "[COMMON]\nMac=AA-AA-AA-AA-AA-AA\nFilePath=/fw/a.pac\nHasScan=1\n[USBPORTINFO]\nIndex0=hubA\\PORT1\n");
    ASSERT_EQ(f.station->settingsStore.SettingsLoad(), 1);
    for (int n = 0; n < kSlotCount; ++n) EXPECT_EQ(Slot(*f.station, n), "NA|NA|NA|IDLE") << n;
    EXPECT_EQ(f.station->package.kind, PackageKind::None);
    EXPECT_EQ(f.station->settings.HasScan, 0u);
    EXPECT_EQ(f.station->view.Text(IDC_TOTAL), "0");
    EXPECT_EQ(f.station->view.Text(IDC_PASS_RATE), "0");
    EXPECT_EQ(f.station->statistics.Total(), 0u);
    EXPECT_EQ(ProfileIni::ReadString(f.SettingsFile(), "COMMON", "Mac", "", 64), "00-11-22-33-44-55");

    // The next start on this PC matches.
    StationFixture again;
    again.WriteSettings(f.ReadSettings());
    again.station->settingsStore.SettingsLoad();
    EXPECT_EQ(again.station->package.kind, PackageKind::SprdPac);
}

// Later matches override earlier ones; a PC without an adapter matches an empty stored stamp.
TEST(FilePathClassificationTest, KindFollowsTheLastMatchingPattern) {
    for (auto [mac, path, kind] : {std::tuple{"00-11-22-33-44-55", "", PackageKind::None},
                                   {"00-11-22-33-44-55", "/fw/Scatter.TXT", PackageKind::None},  // case-sensitive
                                   {"00-11-22-33-44-55", "/fw/x.cfg/MT_scatter.txt", PackageKind::MtkCfg},
                                   {"00-11-22-33-44-55", "/fw/scatter.txt.pac", PackageKind::SprdPac},
                                   {"", "/fw/x.cfg", PackageKind::MtkCfg}}) {
        SCOPED_TRACE(path);
        StationFixture f(1033, mac);
        f.WriteSettings(std::string("[COMMON]\nMac=") + mac + "\nFilePath=" + path + "\n");
        ASSERT_EQ(f.station->settingsStore.SettingsLoad(), 1);
        EXPECT_EQ(f.station->package.kind, kind);
        if (kind == PackageKind::MtkCfg) {
            EXPECT_EQ(f.station->package.cfgFolder, platform::FolderOf(path));
        }
        EXPECT_TRUE(f.station->settings.ServiceNameList.empty()) << "no service names: none, not one empty";
        EXPECT_EQ(f.station->settings.SleepTimeRestart, 10000u) << "an absent option has its built-in value";
    }
}

TEST(SaveBindingsTest, WritesEverySlotInOrderAndThePackagePath) {
    StationFixture f;
    f.WriteSettings("; keep me\r\n[COMMON]\r\nMac=00-11-22-33-44-55\r\nLANGUAGE=1033\r\n");
    Station& st = *f.station;
    st.settingsStore.SettingsLoad();
    st.bindings.SetHsLocation(3, "hub\\PORT4");
    st.bindings.SetLsLocation(3, "hub2\\PORT4");
    st.bindings.SetComName(3, "Port (COM7)");
    st.bindings.SetState(3, BindState::Busy);
    st.package.kind = PackageKind::MtkScatter;
    st.package.scatterFilePath = "/fw/MT_scatter.txt";
    st.settings.HasScan = 1;
    st.settingsStore.SaveBindings();
    const std::string file = f.ReadSettings();
    EXPECT_EQ(file.rfind("; keep me\r\n[COMMON]\r\nMac=00-11-22-33-44-55\r\nLANGUAGE=1033\r\n", 0), 0u);
    EXPECT_NE(file.find("[USBPORTINFO]\r\nIndex0=\r\n"), std::string::npos) << "absent keys load as empty locations";
    EXPECT_NE(file.find("Index3=hub\\PORT4\r\n"), std::string::npos);
    EXPECT_NE(file.find("[THREADSTATUS]\r\nIndex0=ALL_BINDED\r\n"), std::string::npos);
    EXPECT_NE(file.find("Index3=BUSY\r\n"), std::string::npos);
    // Sections appear in the order of the first write of each: USBPORTINFO, COM, BROMPORTINFO, THREADSTATUS.
    EXPECT_LT(file.find("[USBPORTINFO]"), file.find("[COM]"));
    EXPECT_LT(file.find("[COM]"), file.find("[BROMPORTINFO]"));
    EXPECT_LT(file.find("[BROMPORTINFO]"), file.find("[THREADSTATUS]"));
    EXPECT_EQ(ProfileIni::ReadString(f.SettingsFile(), "COMMON", "FilePath", "", 260), "/fw/MT_scatter.txt");
    EXPECT_EQ(ProfileIni::ReadString(f.SettingsFile(), "COMMON", "HasScan", "", 260), "1");

    // A reload on the same PC gives the same table.
    StationFixture again;
    again.WriteSettings(file);
    again.station->settingsStore.SettingsLoad();
    EXPECT_EQ(Slot(*again.station, 3), "hub\\PORT4|hub2\\PORT4|Port (COM7)|ALL_BINDED");
    EXPECT_EQ(again.station->package.scatterFilePath, "/fw/MT_scatter.txt");
}

// A settings file this process cannot read is never rewritten from an empty copy, nor
// a read-only one replaced: the writes fail, the file stays whole, and the station
// says so once, in the status bar even when the package path is shown there too.
TEST(SaveBindingsTest, FileThatCannotBeWrittenIsLeftAsItWasAndSaidOnce) {
    const std::string original =
        "[COMMON]\nMac=00-11-22-33-44-55\nFilePath=/fw/a.pac\n[MEMORYTEST]\nDataBus=0\n[BENCH]\nSimulated=1\n";
    for (const mode_t mode : {0200, 0444}) {
        SCOPED_TRACE(mode);
        StationFixture f;
        f.WriteSettings(original);
        ::chmod(f.dir.Path().c_str(), 0755);
        ::chmod(f.dir.File("Config").c_str(), 0777);
        ::chmod(f.SettingsFile().c_str(), mode);
        const int result = test::RunUnprivileged([&] {
            if (f.station->settingsStore.SettingsLoad() != 1) return 1;
            if (f.station->view.Pane(0).rfind("Cannot write " + f.SettingsFile(), 0) != 0) return 2;
            f.station->view.SetPane(0, "");
            f.station->settingsStore.SaveBindings();
            f.station->settingsStore.LanguageSave();
            return f.station->view.Pane(0).empty() ? 0 : 3;
        });
        ::chmod(f.SettingsFile().c_str(), 0644);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(f.ReadSettings(), original);
    }
}

TEST(LanguageTest, LoadAndSaveKeepOnlyTheTwoValues) {
    StationFixture f;
    f.WriteSettings("[COMMON]\nLANGUAGE=1033\nBackupandRestore=1\n");
    ASSERT_EQ(f.station->settingsStore.LanguageLoad(), 1);
    EXPECT_EQ(f.station->language.LanguageId(), 1033u);
    EXPECT_EQ(f.station->settings.BackupandRestore, 1u);
    f.station->settingsStore.LanguageSave();
    EXPECT_EQ(ProfileIni::ReadString(f.SettingsFile(), "COMMON", "LANGUAGE", "", 64), "1033");
    f.station->language.SetLanguageId(1041);
    f.station->settingsStore.LanguageSave();
    EXPECT_EQ(ProfileIni::ReadString(f.SettingsFile(), "COMMON", "LANGUAGE", "", 64), "2052");
    f.station->settingsStore.UiLog("service 2");  // the day log lives in the station folder
    EXPECT_EQ(f.dir.Read(platform::DayLogPath("", f.clock.WallSeconds())), "service 2\r\n");
}

TEST(LanguageTest, ChoiceFollowsTheComparisonRuleAtEveryCall) {
    StationFixture f(1033);
    Language& lang = f.station->language;
    EXPECT_EQ(lang.ChooseText(texts::kProgramRunning), "Program is running!") << "2052 on an English system";
    lang.SetLanguageId(1033);
    EXPECT_EQ(lang.ChooseText(texts::kProgramRunning), "程序已经启动!") << "1033 on a 1033 system";
    f.systemLanguage = 2052;
    EXPECT_EQ(lang.ChooseText(texts::kProgramRunning), "Program is running!") << "1033 on a Chinese system";
    lang.SetLanguageId(2052);
    EXPECT_EQ(lang.ChooseText(texts::kProgramRunning), "程序已经启动!");
}

TEST(StationStateTest, NamesAtAndBeyondTheirTablesEnds) {
    EXPECT_STREQ(BindStateName(static_cast<BindState>(-1)), "");
    EXPECT_STREQ(DownloadTypeName(11).en, "Read Back");
    EXPECT_STREQ(DownloadTypeName(12).en, "");
    EXPECT_STREQ(DownloadTypeName(-1).zh, "");
    EXPECT_EQ(StationFixture().station->package.downloadType, 1) << "a fresh station upgrades firmware";
}

}  // namespace
}  // namespace quorvel::app
