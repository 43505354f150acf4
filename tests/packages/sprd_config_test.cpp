// SPRD download configuration: selection rules and checks, what a load publishes,
// the INI record.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "packages/SprdDownloadConfig.h"
#include "platform/ProfileIni.h"
#include "station/Texts.h"
#include "support/Golden.h"
#include "support/PacWriter.h"
#include "support/StationFixture.h"
#include "support/TableFile.h"

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

// The cases: tests/tables/sprd-selection.txt.
TEST(SprdSelection, VerdictsAndMessages) {
    const char* verdicts[] = {"ok",         "warn-missing",      "fail-flash",
                              "fail-no-nv", "fail-no-nv-backup", "fail-repartition"};
    std::string text;
    for (const auto& row : test::ReadTable("sprd-selection.txt")) {
        PacSpec layout = test::SmallSprdPac();
        std::string error;
        ASSERT_TRUE(test::ChangePac(layout, row.words, 1, error)) << row.where << ": " << error;
        const auto s = Select(layout);
        text += row.words[0] + ": " + verdicts[s.verdict] +
                (s.message.empty() ? "" : " " + test::Printable(s.message)) + "\n";
    }
    EXPECT_TRUE(test::MatchesGolden("sprd-config/selection.txt", text));
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
    // A load as text: its result and messages, what it published, the extractions left
    // and the INI record.
    std::string Loaded(const PacSpec& layout) {
        std::string text = "load " + std::to_string(Load(layout)) + "\n";
        for (const std::string& m : fx.ui.Messages()) text += "message " + test::Printable(m) + "\n";
        fx.ui.Clear();
        const auto params = fx.station->sprdParams.Get();
        text += "product " + params->ProductName + ", " + std::to_string(params->SelectedFileCount) + " selected\n";
        for (const app::DlFileInfo& f : params->files)
            text += "  " + std::string(f.FileId) + " " + f.FilePath + " " + std::to_string(f.FileSize) + " " +
                    std::to_string(f.CheckFlag) + "\n";
        text += "config " + params->ConfigFilePath + "\nextracted:";
        for (const std::string& name : Extracted()) text += " " + name;
        const std::string ini = fx.dir.File("Config/UpgradeDownload.ini");
        text += "\nUpgradeDownload.ini:\n" + (fs::exists(ini) ? fx.dir.Read("Config/UpgradeDownload.ini") : "(none)\n");
        return test::Scrub(text + "\n", {{fx.dir.Path(), "$DIR/"}});
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
    std::string text = Loaded(test::TypicalSprdPac());

    // With the file present the selection is recorded, and a second load replaces the first.
    fx.dir.Write("Config/UpgradeDownload.ini", "");
    PacSpec second;
    second.productName = "PAC_Other";
    second.entries = {{"NV", "nv.bin", "n"}, {"Extra", "e.img", "e", 0, 1}};
    fx.clock.Advance(1);
    text += Loaded(second);

    // Failed checks delete the extraction and keep the product name.
    PacSpec bad = test::SmallSprdPac();
    bad.productName = "Bad";
    bad.repartitionFlag = 1;
    bad.repartitionMode = 0;
    bad.entries.push_back({"Cache", "c.img", "c", 0, 0});
    fx.clock.Advance(5);
    text += Loaded(bad);

    // An extraction failure replaces only the configuration path.
    PacSpec broken = test::SmallSprdPac();
    broken.badDataCrc = true;
    text += Loaded(broken);

    // Ids are the keys as they stand, but for what would end a section name or a key, or
    // make the line a section header: that is written as '_'. A second load replaces its
    // lines and adds none.
    fx.dir.Write("Config/UpgradeDownload.ini", "[Selection]\nSelectProduct=old\n");
    PacSpec odd;
    odd.productName = "X[1];v=2]";
    odd.entries = {{"NV", "nv.bin", "n"}, {"A]B", "a", "a"}, {"C;D[", "c", "c"}, {"[E", "e", "e"},
                   {";F", "f", "f"},      {"G=H", "g", "g"}, {"[I]", "i", "i"}};
    text += Loaded(odd);
    fx.clock.Advance(1);
    text += Loaded(odd);
    EXPECT_TRUE(test::MatchesGolden("sprd-config/loads.txt", text));
}

}  // namespace
