#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "platform/DayLog.h"
#include "platform/ProfileIni.h"
#include "station/Texts.h"
#include "support/Golden.h"
#include "support/StationFixture.h"
#include "support/TableFile.h"
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

// Everything a load decides, as text: options, slots, package, window, counters, files.
std::string Loaded(const StationFixture& f, int result) {
    const Station& st = *f.station;
    const Settings& s = st.settings;
    std::string text = "load " + std::to_string(result) + "\noptions";
    for (auto [name, value] : {std::pair{"SleepTimeRestart", s.SleepTimeRestart},
                               {"Battery", s.Battery},
                               {"CheckSum", s.CheckSum},
                               {"FlashCheckSum", s.FlashCheckSum},
                               {"NVDATAZIP", s.NVDATAZIP},
                               {"BromLog", s.BromLog},
                               {"HasScan", s.HasScan},
                               {"PatternNum", s.memoryTest.PatternNum},
                               {"DataBus", s.memoryTest.DataBus}})
        text += std::string(" ") + name + "=" + std::to_string(value);
    text += "\nDA_BR [" + s.DA_BR + "] DA_PL [" + s.DA_PL + "] services";
    for (const std::string& name : s.ServiceNameList) text += " [" + name + "]";
    text += "\nslots (hs|ls|com|state):\n";
    for (int n = 0; n < kSlotCount; ++n) text += "  " + std::to_string(n) + " " + Slot(st, n) + "\n";
    const char* kinds[] = {"none", "MTK scatter", "SPRD PAC", "MTK CFG"};
    const PackageSelection& p = st.package;
    text += std::string("package ") + kinds[static_cast<int>(p.kind)] + ": scatter [" + p.scatterFilePath +
            "] firmware [" + p.firmwareFolder + "] pac [" + p.pacFilePath + "] cfg [" + p.cfgFilePath + "] in [" +
            p.cfgFolder + "]\npane [" + st.view.Pane(0) + "] banner [" + st.view.Text(IDC_PATH_BANNER) + "]\ncounted " +
            std::to_string(st.statistics.Total()) + "/" + std::to_string(st.statistics.Fail()) + ", shown " +
            st.view.Text(IDC_TOTAL) + "/" + st.view.Text(IDC_FAILURES) + " " + st.view.Text(IDC_PASS_RATE) + "\n";
    if (const std::string problem = st.settingsStore.MissingFileProblem(); !problem.empty())
        text += "problem [" + test::Scrub(problem, {{f.dir.Path(), "DIR/"}}) + "]\n";
    for (const char* file : {"Config/CommonSetting.ini", "Config/TestResult.ini"})
        text +=
            std::string(file) + ":\n" +
            (std::ifstream(f.dir.File(file)).good() ? test::Scrub(test::Printable(f.dir.Read(file)), {{"\\n", "\\n\n"}})
                                                    : "(none)") +
            "\n";
    return text;
}

// The cases: tests/tables/settings-load.txt.
TEST(SettingsLoadTest, WhatAStationMakesOfItsFiles) {
    for (const auto& row : test::ReadTable("settings-load.txt")) {
        SCOPED_TRACE(row.where);
        const auto& w = row.words;
        ASSERT_TRUE(w.size() >= 2 && w.size() % 2 == 0);
        StationFixture f(1033, w[1]);
        for (std::size_t i = 2; i < w.size(); i += 2) f.dir.Write(w[i], w[i + 1]);
        const int result = f.station->settingsStore.SettingsLoad();
        EXPECT_TRUE(test::MatchesGolden("settings-load/" + w[0] + ".txt", Loaded(f, result)));
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

    // Sections in the order of their first write, every slot, absent keys as empty
    // locations; then a reload on the same PC gives the same table.
    StationFixture again;
    again.WriteSettings(f.ReadSettings());
    const int loaded = again.station->settingsStore.SettingsLoad();
    EXPECT_TRUE(test::MatchesGolden("settings-load/saved_bindings.txt", Loaded(again, loaded)));
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
    EXPECT_EQ(f.station->settingsStore.LanguageLoad(), 0) << "no file yet";
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

// "SYSTEM CHOSEN" language ids -> the text chosen, by one station at every call.
TEST(LanguageTest, ChoiceFollowsTheComparisonRuleAtEveryCall) {
    StationFixture f;
    EXPECT_TRUE(test::MatchesCaseGolden("settings-load/language_choice.txt", [&](const std::string& ids) {
        f.systemLanguage = static_cast<std::uint16_t>(std::stoi(ids));
        f.station->language.SetLanguageId(static_cast<std::uint16_t>(std::stoi(ids.substr(ids.find(' ')))));
        return f.station->language.ChooseText(texts::kProgramRunning);
    }));
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
