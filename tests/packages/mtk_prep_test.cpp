// MTK preparation: efuse search, chip name, DA variant and files, the display refresh.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "packages/MtkPreparation.h"
#include "station/Texts.h"
#include "support/Golden.h"
#include "support/StationFixture.h"
#include "support/TableFile.h"

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

// A station whose package is an MTK scatter file in fw/.
struct MtkStation {
    MtkStation() {
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
    test::StationFixture fx;
};

class MtkPrep : public ::testing::Test, protected MtkStation {};

// What a preparation holds, with the problems it noted.
std::string Shown(const app::MtkPrepState& s, const std::vector<std::string>& problems) {
    std::string text = "efuse " + std::to_string(s.EfuseEnabled) + " [" + s.EfuseXmlPath + "] chip [" + s.ChipName +
                       "] variant " + std::to_string(s.DaVariant) + "\nDA BR [" + s.DaBrPath + "] PL [" + s.DaPlPath +
                       "]\n";
    for (const std::string& p : problems) text += "problem " + p + "\n";
    return text;
}

// The stories: tests/tables/mtk-prep.txt.
TEST(MtkPreparationTable, Stories) {
    for (const auto& row : test::ReadTable("mtk-prep.txt")) {
        SCOPED_TRACE(row.where);
        MtkStation fx;
        MtkPreparation kept(*fx.fx.station);
        app::Station& st = *fx.fx.station;
        std::string text;
        const auto& w = row.words;
        for (std::size_t i = 1; i < w.size(); ++i) {
            const std::size_t args = w[i] == "file" || w[i] == "efuse" || w[i] == "da" ? 2
                                     : w[i] == "language" || w[i] == "chip"            ? 1
                                                                                       : 0;
            ASSERT_LT(i + args, w.size()) << w[i];
            if (w[i] == "file") fx.fx.dir.Write(w[i + 1], w[i + 2]);
            if (w[i] == "efuse") fx.Efuse(w[i + 1], w[i + 2]);
            if (w[i] == "da") st.settings.DA_BR = w[i + 1], st.settings.DA_PL = w[i + 2];
            if (w[i] == "language") st.language.SetLanguageId(static_cast<std::uint16_t>(std::stoul(w[i + 1])));
            if (args == 0 || w[i] == "chip") text += "> " + w[i] + (args ? " " + w[i + 1] : "") + "\n";
            if (w[i] == "prepare" || w[i] == "prepare-quiet") {
                for (const std::string& m : MtkPreparation(st).PrepareMtkPackage(w[i] == "prepare"))
                    text += "message " + m + "\n";
                text += Shown(*st.mtkPrep.Get(), {}) + "pane " + st.view.Pane(2) + "\n";
            } else if (w[i] == "find-efuse" || w[i] == "find-da" || w[i] == "chip") {
                if (w[i] == "chip") kept.LoadChipName(fx.fx.dir.File(w[i + 1]));
                if (w[i] != "chip")
                    text +=
                        "result " + std::to_string(w[i] == "find-da" ? kept.FindDaFiles() : kept.FindEfuseXml()) + "\n";
                text += Shown(kept.State(), kept.Problems());
            } else {
                ASSERT_GT(args, 0u) << "unknown step " << w[i];
            }
            i += args;
        }
        EXPECT_TRUE(test::MatchesGolden("mtk-prep/" + w[0] + ".txt", test::Scrub(text, {{fx.fx.dir.Path(), "$DIR/"}})));
    }
}

// A well-formed file one byte over the bound is refused unread; a FIFO in the XML's
// place is refused at once, never opened for a blocking read.
TEST_F(MtkPrep, ChipNameFromFilesTooLargeOrNotRegular) {
    MtkPreparation prep(*fx.station);
    const std::string head = "<efuse><common><chip-name>MT6580</chip-name></common>";
    fx.dir.Write("fw/huge.xml", head + std::string(kEfuseXmlMaxBytes + 1 - head.size() - 8, ' ') + "</efuse>");
    prep.LoadChipName(fx.dir.File("fw/huge.xml"));
    ASSERT_EQ(::mkfifo(fx.dir.File("fw/fifo_efuse.xml").c_str(), 0644), 0);
    prep.LoadChipName(fx.dir.File("fw/fifo_efuse.xml"));
    EXPECT_EQ(prep.State().ChipName, "");
    EXPECT_EQ(prep.Problems(), (std::vector<std::string>{"the efuse xml file [" + fx.dir.File("fw/huge.xml") +
                                                             "] has 1048577 bytes, more than the 1024 KiB an efuse "
                                                             "xml may have: it is not loaded.",
                                                         app::texts::kMtkEfuseXmlUnreadable}));
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

// The console's calls and the texts shown after each refresh: tests/golden/mtk-prep/refresh.txt.
TEST_F(MtkPrep, RefreshDisplayByKind) {
    FakeConsole console;
    app::ConsoleView& view = fx.station->view;
    app::PackageSelection& package = fx.station->package;
    std::string text;
    auto refresh = [&](const std::string& what) {
        console.calls.clear();
        MtkPreparation::RefreshPackageDisplay(*fx.station, console);
        text += "> " + what + "\n";
        for (const std::string& call : console.calls) text += "  " + call + "\n";
        // The version is what the history keeps.
        text += "pane [" + view.Pane(0) + "] banner [" + view.Text(app::IDC_PATH_BANNER) + "] panel [" +
                view.Text(app::IDC_PANEL) + "] version [" + package.version + "]\n";
    };
    refresh("scatter");
    // A failed pre-load stops before the banner text and the repaint.
    view.SetText(app::IDC_PATH_BANNER, "");
    console.preloadResult = 5;
    refresh("scatter, pre-load fails");
    // A missing scatter file: the message, empty texts, no pre-load.
    package.scatterFilePath = fx.dir.Path() + "fw/gone.txt";
    refresh("scatter missing");
    package.kind = app::PackageKind::SprdPac;
    package.pacFilePath = "/p/a.pac";
    refresh("pac");
    console.preloadResult = 1;  // not examined for CFG packages
    package.kind = app::PackageKind::MtkCfg;
    package.cfgFilePath = "/c/x.cfg";
    refresh("cfg, its pre-load result not examined");
    EXPECT_TRUE(test::MatchesGolden("mtk-prep/refresh.txt", test::Scrub(text, {{fx.dir.Path(), "$DIR/"}})));
}

}  // namespace
