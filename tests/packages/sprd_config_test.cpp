// SPRD download configuration: selection rules and checks, what a load publishes,
// the INI record.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "station/Texts.h"
#include "packages/SprdDownloadConfig.h"
#include "platform/ProfileIni.h"
#include "support/PacWriter.h"
#include "support/StationFixture.h"

namespace fs = std::filesystem;
using namespace quorvel;
using namespace quorvel::packages;
using quorvel::test::PacSpec;

namespace {

// The selection of a layout's table as the station would make it.
SprdSelection Select(const PacSpec& layout) {
    const std::string bytes = test::BuildPac(layout);
    PacHeader header;
    std::memcpy(&header, bytes.data(), sizeof header);
    std::vector<PacFileEntry> table(static_cast<std::size_t>(header.FileCount));
    std::memcpy(table.data(), bytes.data() + sizeof header, table.size() * sizeof(PacFileEntry));
    SprdSelection selection;
    std::string error;
    EXPECT_TRUE(SelectSprdFiles(header, table, selection, error)) << error;
    return selection;
}

TEST(SprdSelection, VerdictsAndMessages) {
    using S = SprdSelection;
    auto leaveOut = [](PacSpec& s, std::uint32_t flag, std::uint32_t mode) {
        s.entries.push_back({"Cache", "c.img", "c", 0, 0});
        s.entries.push_back({"Misc", "m.img", "m", 0, 0});
        s.repartitionFlag = flag;
        s.repartitionMode = mode;
    };
    const std::string warn = "Configure dangerouse: have not selected all files to dwonload.\n";
    const std::string block =
        "Configure dangerouse: have selected repartition,\nbut not selected all files to download.\n"
        "[CACHE,MISC]\nPlease select right packet!";
    const struct {
        const char* label;
        std::function<void(PacSpec&)> tweak;
        S::Verdict verdict;
        std::string message;
    } rows[] = {
        {"all_chosen", [](PacSpec&) {}, S::SELECTION_OK, ""},
        {"nv_lower_case", [](PacSpec& s) { s.entries[1].id = "nv_cal"; }, S::SELECTION_OK, ""},
        {"nv_not_first", [](PacSpec& s) { s.entries[1].id = "ANV"; }, S::SELECTION_FAIL_NO_NV,
         app::texts::kSprdNoNvChosen},
        {"no_nv_backup", [](PacSpec& s) { s.nvBackupFlag = 0; }, S::SELECTION_FAIL_NO_NV_BACKUP,
         app::texts::kSprdNoNvBackup},
        {"omittable_left_out", [](PacSpec& s) { s.entries.push_back({"UserData", "u.img", "u", 0, 1}); },
         S::SELECTION_OK, ""},
        // A FLASH file left out fails without a message; NV first makes it no FLASH file.
        {"flash_left_out", [](PacSpec& s) { s.entries.push_back({"FLASH_A", "f.bin", "x", 0, 1}); },
         S::SELECTION_FAIL_FLASH, ""},
        {"flash_chosen", [](PacSpec& s) { s.entries.push_back({"FLASH_A", "f.bin", "x", 1, 1}); }, S::SELECTION_OK,
         ""},
        {"nvflash_left_out", [](PacSpec& s) { s.entries.push_back({"NVFLASH", "f.bin", "x", 0, 1}); },
         S::SELECTION_OK, ""},
        {"repartition_mode_0", [&](PacSpec& s) { leaveOut(s, 1, 0); }, S::SELECTION_FAIL_REPARTITION, block},
        {"repartition_mode_3", [&](PacSpec& s) { leaveOut(s, 1, 3); }, S::SELECTION_FAIL_REPARTITION, block},
        {"keep_partitions_mode_1", [&](PacSpec& s) { leaveOut(s, 1, 1); }, S::SELECTION_WARN_MISSING,
         warn + "[CACHE,MISC]"},
        {"keep_partitions_mode_2", [&](PacSpec& s) { leaveOut(s, 1, 2); }, S::SELECTION_WARN_MISSING,
         warn + "[CACHE,MISC]"},
        {"no_repartition_flag", [&](PacSpec& s) { leaveOut(s, 0, 0); }, S::SELECTION_WARN_MISSING,
         warn + "[CACHE,MISC]"},
        // Chosen by flag but needing a file it does not carry: never chosen, blocks, not listed.
        {"needs_a_file",
         [](PacSpec& s) {
             s.entries.push_back({"Boot", "", "", 1, 0, 1});
             s.repartitionFlag = 1;
             s.repartitionMode = 2;
         },
         S::SELECTION_WARN_MISSING, warn + "[]"},
        // A chosen omittable entry no longer counts as left out.
        {"omittable_chosen",
         [](PacSpec& s) {
             s.entries.push_back({"UserData", "u.img", "u", 0, 1});
             s.entries.push_back({"Boot", "b.img", "b", 1, 1, 1});
         },
         S::SELECTION_OK, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        PacSpec layout = test::SmallSprdPac();
        row.tweak(layout);
        const auto s = Select(layout);
        EXPECT_EQ(s.verdict, row.verdict);
        EXPECT_EQ(s.message, row.message);
    }
}

TEST(SprdSelection, TableIdsAndTheRecordOfALaterEntry) {
    PacSpec layout = test::SmallSprdPac();
    layout.entries.push_back({"nv", "nv2.bin", "2", 0, 1});
    layout.entries.push_back({"Boot", "", "", 1, 0, 1});
    const auto s = Select(layout);
    EXPECT_EQ(s.selectedCount, 3);
    EXPECT_EQ(s.chosen, (std::vector<bool>{true, true, true, false, false}));
    ASSERT_EQ(s.files.size(), 5u);
    EXPECT_STREQ(s.files[2].FileId, "SYSTEM");
    EXPECT_EQ(s.files[2].FileSize, 1u);
    EXPECT_EQ(s.record.at("NV"), std::make_pair(0u, std::string()));
}

class SprdLoad : public ::testing::Test {
protected:
    SprdLoad() {
        fx.dir.Write("Config/CommonSetting.ini", "[COMMON]\n");
        fs::create_directories(fx.dir.Path() + "tmp");
    }
    int Load(const PacSpec& layout) {
        fx.dir.Write("pkg.pac", test::BuildPac(layout));
        CSprdDownloadConfig config(*fx.station, nullptr, fx.ui.Teller());
        config.SetTempFolderSource([this] { return std::optional<std::string>(fx.dir.Path() + "tmp/"); });
        return config.LoadPackage(fx.dir.File("pkg.pac").c_str());
    }
    std::vector<std::string> Extracted() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(fx.dir.Path() + "ImageFiles"))
            names.push_back(e.path().filename().string());
        return names;
    }
    test::StationFixture fx;
};

TEST_F(SprdLoad, SuccessPublishesEverythingRecordsOnlyIntoAnExistingIniAndFailureKeepsTheProduct) {
    fx.clock.Advance(77);
    ASSERT_EQ(Load(test::TypicalSprdPac()), 1) << ::testing::PrintToString(fx.ui.Messages());
    EXPECT_TRUE(fx.ui.Messages().empty());
    auto params = fx.station->sprdParams.Get();
    EXPECT_EQ(params->ProductName, "PAC_SC9863A");
    EXPECT_EQ(params->SelectedFileCount, 6);
    ASSERT_EQ(params->files.size(), 6u);
    const std::string folder = fx.dir.Path() + "ImageFiles/_DownloadFiles77";
    EXPECT_EQ(std::string(params->files[0].FilePath), folder + "/fdl1.bin");
    EXPECT_EQ(params->ConfigFilePath, folder + "/product.xml");
    EXPECT_FALSE(fs::exists(fx.dir.Path() + "Config/UpgradeDownload.ini"));

    // With the file present the selection is recorded, and a second load replaces the first.
    fx.dir.Write("Config/UpgradeDownload.ini", "");
    PacSpec second;
    second.productName = "PAC_Other";
    second.entries = {{"NV", "nv.bin", "n"}, {"Extra", "e.img", "e", 0, 1}};
    fx.clock.Advance(1);
    ASSERT_EQ(Load(second), 1);
    params = fx.station->sprdParams.Get();
    EXPECT_EQ(params->files.size(), 2u);
    EXPECT_EQ(params->ProductName, "PAC_Other");
    EXPECT_EQ(Extracted(), std::vector<std::string>{"_DownloadFiles78"});
    auto read = [&](const char* section, const char* key) {
        return platform::ProfileIni::ReadString(fx.dir.File("Config/UpgradeDownload.ini"), section, key, "-", 512);
    };
    EXPECT_EQ(read("PAC_Other", "NV"), "1@" + fx.dir.Path() + "ImageFiles/_DownloadFiles78/nv.bin");
    EXPECT_EQ(read("PAC_Other", "EXTRA"), "0@");
    EXPECT_EQ(read("Selection", "SelectProduct"), "PAC_Other");

    // Failed checks delete the extraction and keep the product name.
    fx.ui.Clear();
    PacSpec bad = test::SmallSprdPac();
    bad.productName = "Bad";
    bad.repartitionFlag = 1;
    bad.repartitionMode = 0;
    bad.entries.push_back({"Cache", "c.img", "c", 0, 0});
    fx.clock.Advance(5);
    EXPECT_EQ(Load(bad), 0);
    EXPECT_EQ(fx.ui.Messages().size(), 1u);
    params = fx.station->sprdParams.Get();
    EXPECT_EQ(params->ProductName, "PAC_Other");  // unchanged
    EXPECT_EQ(params->files.size(), 4u);            // new
    EXPECT_TRUE(Extracted().empty());

    // An extraction failure replaces only the configuration path.
    fx.ui.Clear();
    PacSpec broken = test::SmallSprdPac();
    broken.badDataCrc = true;
    EXPECT_EQ(Load(broken), 0);
    EXPECT_EQ(fx.ui.Messages(), std::vector<std::string>{app::texts::kPacCrcError});
    params = fx.station->sprdParams.Get();
    EXPECT_EQ(params->files.size(), 4u);
    EXPECT_EQ(params->ConfigFilePath, fx.dir.Path() + "ImageFiles/_DownloadFiles83/sys.img");
    EXPECT_TRUE(Extracted().empty());
}

TEST_F(SprdLoad, BracketsEqualsAndSemicolonsAreRecordedWithoutBreakingTheIni) {
    fx.dir.Write("Config/UpgradeDownload.ini", "[Selection]\nSelectProduct=old\n");
    PacSpec layout;
    layout.productName = "X[1];v=2]";
    layout.entries = {{"NV", "nv.bin", "n"}, {"A]B", "a", "a"}, {"C;D[", "c", "c"}, {"[E", "e", "e"},
                      {";F", "f", "f"},      {"G=H", "g", "g"}, {"[I]", "i", "i"}};
    ASSERT_EQ(Load(layout), 1);
    const std::string ini = fx.dir.File("Config/UpgradeDownload.ini");
    const std::string once = fx.dir.Read("Config/UpgradeDownload.ini");
    ASSERT_EQ(Load(layout), 1);  // a second load replaces its lines, adds none
    EXPECT_EQ(fx.dir.Read("Config/UpgradeDownload.ini").size(), once.size());
    EXPECT_EQ(std::count(once.begin(), once.end(), '\n'), 2 + 7 + 1);

    // Ids are the keys as they stand, but for what would end a section name or a key,
    // or make the line a section header: that is written as '_'.
    const std::string section = "PAC_X[1_;v=2_";
    const std::string folder = fx.dir.Path() + "ImageFiles/_DownloadFiles0/";
    for (auto [key, file] :
         {std::pair{"A]B", "a"}, {"C;D[", "c"}, {"[E", "e"}, {";F", "f"}, {"G_H", "g"}, {"_I]", "i"}}) {
        EXPECT_EQ(platform::ProfileIni::ReadString(ini, section, key, "-", 512), std::string("1@") + folder + file)
            << key;
    }
    EXPECT_EQ(platform::ProfileIni::ReadString(ini, "Selection", "SelectProduct", "-", 512), "PAC_X[1];v=2]");
}

}  // namespace
