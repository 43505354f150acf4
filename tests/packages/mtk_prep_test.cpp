// MTK preparation: efuse search, chip name, DA variant and files, the display refresh.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "packages/MtkPreparation.h"
#include "station/Texts.h"
#include "support/StationFixture.h"

using namespace quorvel;
using namespace quorvel::packages;

namespace {

TEST(DaVariant, TableOfChipNames) {
    for (auto [chip, variant] : {std::pair{"MT6755_V1", 3},
                                 {"xxMT6799yy", 1},
                                 {"MT6580_V1", 2},
                                 {"MT6580", 0},
                                 {"mt6755", 0} /* case-sensitive */,
                                 {"MT6755_v1", 1}})
        EXPECT_EQ(DaVariantOf(chip), variant) << chip;
    EXPECT_EQ(DaFolderOf("/st/", 2), "/st/MTKDA_SP/Sec11_V1");
}

class MtkPrep : public ::testing::Test {
protected:
    MtkPrep() {
        fx.station->package.kind = app::PackageKind::MtkScatter;
        fx.station->package.firmwareFolder = fx.dir.Path() + "fw/";
        fx.station->package.scatterFilePath = fx.dir.Path() + "fw/MT6755_Android_scatter.txt";
        fx.dir.Write("fw/MT6755_Android_scatter.txt", "scatter");
        fx.station->settings.DA_BR = "BR";
        fx.station->settings.DA_PL = "PL";
    }
    void Efuse(const std::string& name, const std::string& chip) {
        fx.dir.Write("fw/" + name, "<?xml version=\"1.0\"?>\n<efuse><common><magic>1</magic><chip-name>" + chip +
                                       "</chip-name></common></efuse>\n");
    }
    std::string Folder(const char* variant) const { return fx.dir.Path() + "MTKDA_SP/" + variant; }
    test::StationFixture fx;
};

TEST_F(MtkPrep, FullPreparationPublishesEfuseChipAndDaFilesWhichALaterEmptyFolderKeeps) {
    Efuse("efuse.xml", "MT6755_V1");
    fx.dir.Write("fw/other.xml", "<x/>");
    fx.dir.Write("MTKDA_SP/Sec20_V1/DA_BR_PL.bin", "one file for both");
    fx.dir.Write("MTKDA_SP/Sec20_V1/readme.bin", "neither");
    fx.dir.Write("MTKDA_SP/Sec11/DA_BR.bin", "wrong variant");
    EXPECT_TRUE(MtkPreparation(*fx.station).PrepareMtkPackage(true).empty());
    auto state = fx.station->mtkPrep.Get();
    EXPECT_EQ(state->EfuseEnabled, 1);
    EXPECT_EQ(state->EfuseXmlPath, fx.dir.Path() + "fw/efuse.xml");
    EXPECT_EQ(state->ChipName, "MT6755_V1");
    EXPECT_EQ(state->DaVariant, 3);
    EXPECT_EQ(state->DaBrPath, Folder("Sec20_V1") + "/DA_BR_PL.bin");
    EXPECT_EQ(state->DaPlPath, Folder("Sec20_V1") + "/DA_BR_PL.bin");
    EXPECT_EQ(fx.station->view.Pane(2), "EFUSE Enable!");

    Efuse("efuse.xml", "MT6797");  // Sec20: no folder, so the earlier paths stay
    EXPECT_TRUE(MtkPreparation(*fx.station).PrepareMtkPackage(false).empty());
    state = fx.station->mtkPrep.Get();
    EXPECT_EQ(state->DaVariant, 1);
    EXPECT_EQ(state->DaBrPath, Folder("Sec20_V1") + "/DA_BR_PL.bin");
}

TEST_F(MtkPrep, EfuseSearchNoneOrSeveral) {
    fx.dir.Write("fw/d.xml", "<x/>");
    // No DA search, so no DA message either.
    EXPECT_TRUE(MtkPreparation(*fx.station).PrepareMtkPackage(true).empty());
    EXPECT_EQ(fx.station->mtkPrep.Get()->EfuseEnabled, 0);
    EXPECT_EQ(fx.station->view.Pane(2), "EFUSE Disable!");

    Efuse("a_efuse.xml", "MT6580");
    Efuse("b_efuse.xml", "MT6797");
    Efuse("c_efuse.XML", "MT6757");
    MtkPreparation prep(*fx.station);
    EXPECT_EQ(prep.FindEfuseXml(), 0);
    EXPECT_EQ(prep.State().EfuseXmlPath, fx.dir.Path() + "fw/c_efuse.XML");
    // Once two matches exist, every further file examined repeats it.
    EXPECT_EQ(prep.Problems(), std::vector<std::string>(3, app::texts::kMtkMoreThanOneEfuse));
    prep.PrepareMtkPackage(false);
    EXPECT_EQ(fx.station->mtkPrep.Get()->EfuseEnabled, 1);
}

TEST_F(MtkPrep, ChipNameRules) {
    MtkPreparation prep(*fx.station);
    Efuse("efuse.xml", "MT6750");
    prep.LoadChipName(fx.dir.File("fw/efuse.xml"));
    EXPECT_EQ(prep.State().ChipName, "MT6750");

    fx.dir.Write("fw/none.xml", "<efuse><common><magic>1</magic></common></efuse>");
    prep.LoadChipName(fx.dir.File("fw/none.xml"));
    EXPECT_EQ(prep.State().ChipName, "MT6750");  // kept
    fx.dir.Write("fw/broken.xml", "<efuse><common>");
    prep.LoadChipName(fx.dir.File("fw/broken.xml"));
    // A well-formed file one byte over the bound is refused unread.
    const std::string head = "<efuse><common><chip-name>MT6580</chip-name></common>";
    fx.dir.Write("fw/huge.xml", head + std::string(kEfuseXmlMaxBytes + 1 - head.size() - 8, ' ') + "</efuse>");
    prep.LoadChipName(fx.dir.File("fw/huge.xml"));
    EXPECT_EQ(prep.State().ChipName, "MT6750");
    EXPECT_EQ(prep.Problems(),
              (std::vector<std::string>{app::texts::kMtkNoChipName, app::texts::kMtkEfuseXmlUnreadable,
                                        "the efuse xml file [" + fx.dir.File("fw/huge.xml") +
                                            "] has 1048577 bytes, more than the 1024 KiB an efuse xml may have: it "
                                            "is not loaded."}));

    // A FIFO in the XML's place is refused at once, never opened for a blocking read.
    ASSERT_EQ(::mkfifo(fx.dir.File("fw/fifo_efuse.xml").c_str(), 0644), 0);
    prep.LoadChipName(fx.dir.File("fw/fifo_efuse.xml"));
    EXPECT_EQ(prep.Problems().back(), app::texts::kMtkEfuseXmlUnreadable);

    fx.dir.Write("fw/empty.xml", "<efuse><common><x-chip-name-y/></common></efuse>");
    prep.LoadChipName(fx.dir.File("fw/empty.xml"));
    EXPECT_EQ(prep.State().ChipName, "");
}

TEST_F(MtkPrep, DaSearchRulesAndMessages) {
    fx.dir.Write("MTKDA_SP/Sec11/a_BR.bin", "");
    fx.dir.Write("MTKDA_SP/Sec11/b.bin", "");
    fx.dir.Write("MTKDA_SP/Sec11/z_BR.txt", "");
    fx.station->settings.DA_BR = "";
    fx.station->settings.DA_PL = "nothing";
    MtkPreparation prep(*fx.station);
    EXPECT_EQ(prep.FindDaFiles(), 0);
    EXPECT_EQ(prep.State().DaBrPath, Folder("Sec11") + "/b.bin");  // empty setting: every file, last wins
    EXPECT_EQ(prep.State().DaPlPath, "");

    Efuse("efuse.xml", "MT6580");
    EXPECT_EQ(prep.PrepareMtkPackage(true), std::vector<std::string>{"Error: DA File Missing,please check it!!!"});
    fx.station->language.SetLanguageId(fx.systemLanguage);  // Chinese chosen
    EXPECT_EQ(prep.PrepareMtkPackage(true), std::vector<std::string>{"错误: DA文件未找到，请检查！"});
    EXPECT_EQ(prep.PrepareMtkPackage(false), std::vector<std::string>{"Error : DA File Missing,please check it!!!"});
}

class FakeConsole final : public PackageDisplayConsole {
public:
    void SetBannerFont(const DisplayFont& f) override {
        Log(std::string("banner ") + f.face + " " + std::to_string(f.height));
    }
    void SetPanelFont(const DisplayFont& f) override { Log("panel " + std::to_string(f.height)); }
    int PanelClientHeight() const override { return 47; }
    int PreLoadPackage() override {
        Log("preload");
        return preloadResult;
    }
    std::string PackageVersionText() override { return "V1.2"; }
    void Repaint() override { Log("repaint"); }
    void Tell(const std::string& text) override { Log("tell " + text); }
    void Log(const std::string& call) { calls.push_back(call); }
    int preloadResult = 0;
    std::vector<std::string> calls;
};

TEST_F(MtkPrep, RefreshDisplayByKind) {
    FakeConsole console;
    auto refresh = [&] {
        console.calls.clear();
        MtkPreparation::RefreshPackageDisplay(*fx.station, console);
        return console.calls;
    };
    using Calls = std::vector<std::string>;
    app::ConsoleView& view = fx.station->view;
    const std::string scatter = fx.station->package.scatterFilePath;
    EXPECT_EQ(refresh(), (Calls{"banner Arial 24", "preload", "panel 32", "repaint"}));
    EXPECT_EQ(view.Pane(0), "Software Path: \"" + scatter + "\"");
    EXPECT_EQ(view.Text(app::IDC_PATH_BANNER), scatter);
    EXPECT_EQ(view.Text(app::IDC_PANEL), "SW:V1.2");
    EXPECT_EQ(fx.station->package.version, "SW:V1.2");  // what the history keeps

    // A failed pre-load stops before the banner text and the repaint.
    view.SetText(app::IDC_PATH_BANNER, "");
    console.preloadResult = 5;
    EXPECT_EQ(refresh(), (Calls{"banner Arial 24", "preload"}));
    EXPECT_EQ(view.Text(app::IDC_PATH_BANNER), "");

    // A missing scatter file: the message, empty texts, no pre-load.
    fx.station->package.scatterFilePath = fx.dir.Path() + "fw/gone.txt";
    EXPECT_EQ(refresh(), (Calls{"tell Please select MTK Scatter file first!"}));
    EXPECT_EQ(view.Pane(0), "");

    fx.station->package.kind = app::PackageKind::SprdPac;
    fx.station->package.pacFilePath = "/p/a.pac";
    EXPECT_EQ(refresh(), (Calls{"banner Arial 24", "panel 32", "repaint"}));
    EXPECT_EQ(view.Pane(0), "Software Path: \"/p/a.pac\"");
    EXPECT_EQ(view.Text(app::IDC_PANEL), "");
    EXPECT_EQ(fx.station->package.version, "");

    console.preloadResult = 1;  // not examined for CFG packages
    fx.station->package.kind = app::PackageKind::MtkCfg;
    fx.station->package.cfgFilePath = "/c/x.cfg";
    EXPECT_EQ(refresh(), (Calls{"banner Arial 24", "preload", "panel 32", "repaint"}));
    EXPECT_EQ(view.Text(app::IDC_PATH_BANNER), "/c/x.cfg");
}

}  // namespace
