// SPRD download configuration: what a load publishes, the INI record (the selection
// rules and checks: quorvel-pac plan runs of tests/tables/quorvel-pac.txt).
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

// The loads, one after another on one station: tests/tables/sprd-loads.txt.
TEST_F(SprdLoad, WhatEachLoadPublishesAndRecords) {
    std::string text;
    for (const auto& row : test::ReadTable("sprd-loads.txt")) {
        const auto& w = row.words;
        if (w[0] == "advance") fx.clock.Advance(std::stoi(w.at(1)));
        if (w[0] == "ini") fx.dir.Write("Config/UpgradeDownload.ini", w.at(1));
        if (w[0] != "load") continue;
        PacSpec layout;
        std::string error;
        ASSERT_TRUE(test::ChangePac(layout, w, 1, error)) << row.where << ": " << error;
        text += Loaded(layout);
    }
    EXPECT_TRUE(test::MatchesGolden("sprd-config/loads.txt", text));
}

}  // namespace
