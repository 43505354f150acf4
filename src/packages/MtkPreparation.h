#pragma once
// Preparation of an MTK scatter package before any download: the efuse XML of the
// firmware folder, the chip name in it, and the pair of download-agent files from
// the station's MTKDA_SP folder; then the package display. Runs on the station
// thread while no job runs; the result is published whole into Station::mtkPrep.
// What the operator must read is returned (or handed to the console), never shown here.

#include <string>
#include <vector>

#include "station/PackageState.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::packages {

struct DisplayFont {
    const char* face;
    int height;
    int weight;  // 0: the face's normal weight
};

// What RefreshPackageDisplay needs of the console besides its texts (ConsoleView):
// fonts, the panel's size, the MTK engine's pre-load and a repaint. Implemented by the
// console; called on the station thread.
class PackageDisplayConsole {
public:
    virtual ~PackageDisplayConsole() = default;
    virtual void SetBannerFont(const DisplayFont& font) = 0;
    virtual void SetPanelFont(const DisplayFont& font) = 0;
    virtual int PanelClientHeight() const = 0;
    // Loads the chosen package into the engine; 0 on success.
    virtual int PreLoadPackage() = 0;
    virtual std::string PackageVersionText() = 0;
    // Invalidate, erase and update now.
    virtual void Repaint() = 0;
    // A message box with `text`; returns once the operator has read it.
    virtual void Tell(const std::string& text) = 0;
};

// An efuse description is a few kilobytes; this leaves room for any real one.
inline constexpr unsigned kEfuseXmlMaxBytes = 1024 * 1024;

inline constexpr const char* kDaListedChips[] = {"MT6750", "MT6755", "MT6757", "MT6797", "MT6799"};

// The DA variant of a chip name: +2 when it contains "_V1", +1 when it contains a
// listed chip. Case-sensitive.
int DaVariantOf(const std::string& chipName);
// "<station folder>MTKDA_SP/Sec11", "Sec20", "Sec11_V1" or "Sec20_V1".
std::string DaFolderOf(const std::string& exeDir, int variant);

class MtkPreparation {
public:
    // Works on a copy of the station's MtkPrepState, published by PrepareMtkPackage.
    explicit MtkPreparation(app::Station& station);

    // The whole preparation into the working copy; `startup` picks the wording of the
    // DA-missing message. Returns the messages for the operator, in order: the console
    // shows them before it publishes the result.
    std::vector<std::string> Prepare(bool startup);
    // Makes the working copy the station's and shows the efuse state in pane 2.
    void Publish();
    // Prepare, then Publish.
    std::vector<std::string> PrepareMtkPackage(bool startup);

    // The steps, on the working copy; each adds its messages to Problems(). Files are
    // examined in name order, so the "last match wins" rules give the same result on
    // every file system.
    int FindEfuseXml();
    void LoadChipName(const std::string& xmlPath);
    void SelectDaVariant();
    int FindDaFiles();

    const app::MtkPrepState& State() const { return state_; }
    const std::vector<std::string>& Problems() const { return problems_; }

    // Package path, version and engine pre-load on the console, for every package kind.
    static void RefreshPackageDisplay(app::Station& station, PackageDisplayConsole& console);

private:
    app::Station& station_;
    app::MtkPrepState state_;
    std::vector<std::string> problems_;
};

// The names of the regular files in `folder` whose extension is `extension`
// (compared without case), in byte order of their names.
std::vector<std::string> FilesWithExtension(const std::string& folder, const std::string& extension);

}  // namespace quorvel::packages
