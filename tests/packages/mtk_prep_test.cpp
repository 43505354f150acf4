// MTK preparation: efuse search, chip name, DA variant and files, the display refresh.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>

#include "packages/MtkPreparation.h"
#include "support/Golden.h"
#include "support/StationFixture.h"
#include "support/TableFile.h"

using namespace quorvel;
using namespace quorvel::packages;

namespace {

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

// What a preparation holds, with the problems it noted.
std::string Shown(const app::MtkPrepState& s, const std::vector<std::string>& problems) {
    std::string text = "efuse " + std::to_string(s.EfuseEnabled) + " [" + s.EfuseXmlPath + "] chip [" + s.ChipName +
                       "] variant " + std::to_string(s.DaVariant) + "\nDA BR [" + s.DaBrPath + "] PL [" + s.DaPlPath +
                       "]\n";
    for (const std::string& p : problems) text += "problem " + p + "\n";
    return text;
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

// The stories: tests/tables/mtk-prep.txt.
TEST(MtkPreparationTable, Stories) {
    static const std::map<std::string, std::size_t> kArgs = {
        {"file", 2},    {"file-of", 2},       {"efuse", 2},      {"da", 2},      {"language", 1}, {"chip", 1},
        {"fifo", 1},    {"banner", 1},        {"preload", 1},    {"scatter", 1}, {"pac", 1},      {"cfg", 1},
        {"prepare", 0}, {"prepare-quiet", 0}, {"find-efuse", 0}, {"find-da", 0}, {"refresh", 0}};
    for (const auto& row : test::ReadTable("mtk-prep.txt")) {
        SCOPED_TRACE(row.where);
        MtkStation fx;
        MtkPreparation kept(*fx.fx.station);
        app::Station& st = *fx.fx.station;
        FakeConsole console;
        std::string text;
        const auto& w = row.words;
        for (std::size_t i = 1; i < w.size(); ++i) {
            const auto step = kArgs.find(w[i]);
            ASSERT_TRUE(step != kArgs.end()) << "unknown step " << w[i];
            const std::size_t args = step->second;
            ASSERT_LT(i + args, w.size()) << w[i];
            const std::string arg = args ? w[i + 1] : "";
            if (w[i] == "file") fx.fx.dir.Write(arg, w[i + 2]);
            if (w[i] == "file-of") fx.fx.dir.Write(arg, std::string(std::stoul(w[i + 2]), 'x'));
            ASSERT_TRUE(w[i] != "fifo" || ::mkfifo(fx.fx.dir.File(arg).c_str(), 0644) == 0) << arg;
            if (w[i] == "efuse") fx.Efuse(arg, w[i + 2]);
            if (w[i] == "da") st.settings.DA_BR = arg, st.settings.DA_PL = w[i + 2];
            if (w[i] == "language") st.language.SetLanguageId(static_cast<std::uint16_t>(std::stoul(arg)));
            if (w[i] == "banner") st.view.SetText(app::IDC_PATH_BANNER, arg);
            if (w[i] == "preload") console.preloadResult = std::stoi(arg);
            if (w[i] == "scatter") st.package.scatterFilePath = fx.fx.dir.File(arg);
            if (w[i] == "pac") st.package.kind = app::PackageKind::SprdPac, st.package.pacFilePath = arg;
            if (w[i] == "cfg") st.package.kind = app::PackageKind::MtkCfg, st.package.cfgFilePath = arg;
            if (args == 0 || w[i] == "chip") text += "> " + w[i] + (args ? " " + arg : "") + "\n";
            if (w[i] == "prepare" || w[i] == "prepare-quiet") {
                for (const std::string& m : MtkPreparation(st).PrepareMtkPackage(w[i] == "prepare"))
                    text += "message " + m + "\n";
                text += Shown(*st.mtkPrep.Get(), {}) + "pane " + st.view.Pane(2) + "\n";
            } else if (w[i] == "find-efuse" || w[i] == "find-da" || w[i] == "chip") {
                if (w[i] == "chip") kept.LoadChipName(fx.fx.dir.File(arg));
                if (w[i] != "chip")
                    text +=
                        "result " + std::to_string(w[i] == "find-da" ? kept.FindDaFiles() : kept.FindEfuseXml()) + "\n";
                text += Shown(kept.State(), kept.Problems());
            } else if (w[i] == "refresh") {
                console.calls.clear();
                MtkPreparation::RefreshPackageDisplay(st, console);
                for (const std::string& call : console.calls) text += "  " + call + "\n";
                // The version is what the history keeps.
                text += "pane [" + st.view.Pane(0) + "] banner [" + st.view.Text(app::IDC_PATH_BANNER) + "] panel [" +
                        st.view.Text(app::IDC_PANEL) + "] version [" + st.package.version + "]\n";
            }
            i += args;
        }
        EXPECT_TRUE(test::MatchesGolden("mtk-prep/" + w[0] + ".txt", test::Scrub(text, {{fx.fx.dir.Path(), "$DIR/"}})));
    }
}

}  // namespace
