// SPRD download configuration: selection rules and checks, what a load publishes,
// the INI record.
#include <gtest/gtest.h>

#include <filesystem>

#include "app/Messages.h"
#include "app/Texts.h"
#include "packages/SprdDownloadConfig.h"
#include "platform/ProfileIni.h"
#include "support/PacWriter.h"
#include "support/StationFixture.h"

namespace fs = std::filesystem;
using namespace quorvel;
using namespace quorvel::packages;
using quorvel::test::PacEntrySpec;
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

PacSpec Base() {
    PacSpec layout;
    layout.entries = {{"FDL", "fdl.bin", "f"}, {"NV", "nv.bin", "n"}, {"System", "sys.img", "s"}};
    return layout;
}

TEST(SprdSelection, AllChosenWithNvAndBackupPassesWithoutWarning) {
    const auto s = Select(Base());
    EXPECT_EQ(s.verdict, SprdSelection::SELECTION_OK);
    EXPECT_EQ(s.selectedCount, 3);
    EXPECT_TRUE(s.message.empty());
    ASSERT_EQ(s.files.size(), 3u);
    EXPECT_STREQ(s.files[2].FileId, "SYSTEM");  // ids upper-cased
    EXPECT_EQ(s.files[2].FileSize, 1u);
}

TEST(SprdSelection, OmittableAndNeedsAFileRules) {
    PacSpec layout = Base();
    layout.entries.push_back({"UserData", "u.img", "u", 0, 1});  // unchosen but omittable
    auto s = Select(layout);
    EXPECT_EQ(s.verdict, SprdSelection::SELECTION_OK);
    EXPECT_EQ(s.missingFileList, "");

    // Chosen by flag but needing a file it does not carry: never chosen, blocks, not listed.
    layout.entries.push_back({"Boot", "", "", 1, 0, 1});
    layout.repartitionMode = 2;
    layout.repartitionFlag = 1;
    s = Select(layout);
    EXPECT_FALSE(s.chosen.back());
    EXPECT_FALSE(s.allRequiredChosen);
    EXPECT_EQ(s.missingFileList, "");
    EXPECT_EQ(s.verdict, SprdSelection::SELECTION_WARN_MISSING);
    EXPECT_EQ(s.message, "Configure dangerouse: have not selected all files to dwonload.\n[]");

    // A chosen omittable entry no longer counts as left out.
    layout.entries.back() = {"Boot", "b.img", "b", 1, 1, 1};
    s = Select(layout);
    EXPECT_EQ(s.omittableLeft, 1);
    EXPECT_TRUE(s.allRequiredChosen);
}

TEST(SprdSelection, NvAndFlashFamilies) {
    PacSpec layout = Base();
    layout.entries[1].id = "nv_cal";  // lower case is still NV
    EXPECT_TRUE(Select(layout).nvChosen);
    layout.entries[1].id = "ANV";
    auto s = Select(layout);
    EXPECT_EQ(s.verdict, SprdSelection::SELECTION_FAIL_NO_NV);
    EXPECT_EQ(s.message, app::texts::kSprdNoNvChosen);

    layout = Base();
    layout.entries.push_back({"FLASH_A", "flash.bin", "x", 0, 1});  // a FLASH file, not chosen
    s = Select(layout);
    EXPECT_EQ(s.verdict, SprdSelection::SELECTION_FAIL_FLASH);
    EXPECT_TRUE(s.message.empty());  // fails silently
    layout.entries.back().checkFlag = 1;
    EXPECT_EQ(Select(layout).verdict, SprdSelection::SELECTION_OK);
    layout.entries.back().id = "NVFLASH";  // NV first: not a FLASH file
    layout.entries.back().checkFlag = 0;
    EXPECT_FALSE(Select(layout).hasFlash);

    layout = Base();
    layout.nvBackupFlag = 0;
    EXPECT_EQ(Select(layout).verdict, SprdSelection::SELECTION_FAIL_NO_NV_BACKUP);
}

TEST(SprdSelection, RepartitionModesDecideBetweenBlockAndWarning) {
    PacSpec layout = Base();
    layout.entries.push_back({"Cache", "c.img", "c", 0, 0});
    layout.entries.push_back({"Misc", "m.img", "m", 0, 0});
    layout.repartitionFlag = 1;
    for (std::uint32_t mode : {0u, 3u}) {
        layout.repartitionMode = mode;
        const auto s = Select(layout);
        EXPECT_EQ(s.verdict, SprdSelection::SELECTION_FAIL_REPARTITION) << mode;
        EXPECT_EQ(s.message,
                  "Configure dangerouse: have selected repartition,\nbut not selected all files to download.\n"
                  "[CACHE,MISC]\nPlease select right packet!");
    }
    for (std::uint32_t mode : {1u, 2u}) {
        layout.repartitionMode = mode;
        EXPECT_EQ(Select(layout).verdict, SprdSelection::SELECTION_WARN_MISSING) << mode;
    }
    layout.repartitionFlag = 0;
    layout.repartitionMode = 0;
    EXPECT_EQ(Select(layout).verdict, SprdSelection::SELECTION_WARN_MISSING);
}

TEST(SprdSelection, LaterEntryOfSameIdDecidesTheRecord) {
    PacSpec layout = Base();
    layout.entries.push_back({"nv", "nv2.bin", "2", 0, 1});
    const auto s = Select(layout);
    EXPECT_EQ(s.files.size(), 4u);
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
        CSprdDownloadConfig config(*fx.station, nullptr);
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

TEST_F(SprdLoad, SuccessPublishesEverythingAndRecordsOnlyIntoAnExistingIni) {
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
    const std::string ini = fx.dir.File("Config/UpgradeDownload.ini");
    EXPECT_EQ(platform::ProfileIni::ReadString(ini, "PAC_Other", "NV", "", 512),
              "1@" + fx.dir.Path() + "ImageFiles/_DownloadFiles78/nv.bin");
    EXPECT_EQ(platform::ProfileIni::ReadString(ini, "PAC_Other", "EXTRA", "-", 512), "0@");
    EXPECT_EQ(platform::ProfileIni::ReadString(ini, "Selection", "SelectProduct", "", 512), "PAC_Other");
}

TEST_F(SprdLoad, FailedChecksDeleteTheExtractionAndKeepTheProductName) {
    ASSERT_EQ(Load(test::TypicalSprdPac()), 1);
    PacSpec bad = Base();
    bad.productName = "Bad";
    bad.repartitionFlag = 1;
    bad.repartitionMode = 0;
    bad.entries.push_back({"Cache", "c.img", "c", 0, 0});
    fx.clock.Advance(5);
    EXPECT_EQ(Load(bad), 0);
    EXPECT_EQ(fx.ui.Messages().size(), 1u);
    auto params = fx.station->sprdParams.Get();
    EXPECT_EQ(params->ProductName, "PAC_SC9863A");  // unchanged
    EXPECT_EQ(params->files.size(), 4u);            // new
    EXPECT_TRUE(Extracted().empty());

    // An extraction failure replaces only the configuration path.
    fx.ui.Clear();
    PacSpec broken = Base();
    broken.badDataCrc = true;
    EXPECT_EQ(Load(broken), 0);
    EXPECT_EQ(fx.ui.Messages(), std::vector<std::string>{app::texts::kPacCrcError});
    params = fx.station->sprdParams.Get();
    EXPECT_EQ(params->files.size(), 4u);
    EXPECT_EQ(params->ConfigFilePath, fx.dir.Path() + "ImageFiles/_DownloadFiles5/sys.img");
    EXPECT_TRUE(Extracted().empty());
}

}  // namespace
