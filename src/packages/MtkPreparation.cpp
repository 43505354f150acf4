#include "packages/MtkPreparation.h"

#include <sys/stat.h>
#include <tinyxml2.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "packages/BinPack.h"
#include "packages/TextFormat.h"
#include "platform/AtomicFile.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::packages {
namespace fs = std::filesystem;
namespace texts = app::texts;

namespace {

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string WithoutTrailingSeparators(std::string path) {
    while (path.size() > 1 && (path.back() == '/' || path.back() == '\\')) path.pop_back();
    return path;
}

bool FileExists(const std::string& path) {
    struct stat st;
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

const DisplayFont kBannerFont{"Arial", 24, 65};

}  // namespace

std::vector<std::string> FilesWithExtension(const std::string& folder, const std::string& extension) {
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code entryEc;
        if (it->is_directory(entryEc)) continue;
        const std::string name = it->path().filename().string();
        if (name.size() <= extension.size()) continue;
        const std::string ext = name.substr(name.size() - extension.size());
        if (std::equal(ext.begin(), ext.end(), extension.begin(), extension.end(), [](char a, char b) {
                return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
            }))
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

int DaVariantOf(const std::string& chipName) {
    const bool v1 = Contains(chipName, "_V1");
    bool listed = false;
    for (const char* chip : kDaListedChips) listed = listed || Contains(chipName, chip);
    return (v1 ? 2 : 0) + (listed ? 1 : 0);
}

std::string DaFolderOf(const std::string& exeDir, int variant) {
    static constexpr const char* kFolders[4] = {"Sec11", "Sec20", "Sec11_V1", "Sec20_V1"};
    std::string base = exeDir;
    if (!base.empty() && base.back() != '/') base += '/';
    return base + "MTKDA_SP/" + kFolders[variant & 3];
}

MtkPreparation::MtkPreparation(app::Station& station) : station_(station), state_(*station.mtkPrep.Get()) {}

int MtkPreparation::FindEfuseXml() {
    const std::string folder = WithoutTrailingSeparators(station_.package.firmwareFolder);
    int count = 0;
    for (const auto& name : FilesWithExtension(folder, ".xml")) {
        if (Contains(name, "efuse")) {
            state_.EfuseXmlPath = folder + "/" + name;
            ++count;
        }
        if (count > 1) problems_.emplace_back(texts::kMtkMoreThanOneEfuse);
    }
    return count >= 1 ? 0 : -1;
}

void MtkPreparation::LoadChipName(const std::string& xmlPath) {
    // The parsed tree takes about fifteen times the file's size and the station thread
    // waits for it: a file far beyond any efuse description is refused unread.
    std::string text;
    {
        platform::UniqueFd fd = OpenRegularFile(xmlPath);
        struct stat st {};
        if (fd && ::fstat(fd.get(), &st) == 0 && static_cast<std::uint64_t>(st.st_size) > kEfuseXmlMaxBytes) {
            fd.reset();
            problems_.push_back(Format(texts::kMtkEfuseXmlTooLarge, xmlPath.c_str(),
                                       static_cast<unsigned long long>(st.st_size), kEfuseXmlMaxBytes / 1024));
            return;
        }
        if (fd) {
            text.resize(static_cast<std::size_t>(st.st_size));
            text.resize(platform::ReadFully(fd.get(), text.data(), text.size()));
        }
        if (!fd || text.size() != static_cast<std::size_t>(st.st_size)) text.clear();
    }
    tinyxml2::XMLDocument doc;
    if (text.empty() || doc.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) {
        problems_.emplace_back(texts::kMtkEfuseXmlUnreadable);
        return;
    }
    if (const tinyxml2::XMLElement* root = doc.RootElement()) {
        for (auto* group = root->FirstChildElement(); group; group = group->NextSiblingElement()) {
            for (auto* item = group->FirstChildElement(); item; item = item->NextSiblingElement()) {
                if (!Contains(item->Name(), "chip-name")) continue;
                const tinyxml2::XMLNode* first = item->FirstChild();
                state_.ChipName = first && first->Value() ? first->Value() : "";
                return;
            }
        }
    }
    problems_.emplace_back(texts::kMtkNoChipName);
}

void MtkPreparation::SelectDaVariant() {
    state_.DaVariant = DaVariantOf(state_.ChipName);
}

int MtkPreparation::FindDaFiles() {
    const std::string folder = DaFolderOf(station_.ExeDir(), state_.DaVariant);
    const std::string& br = station_.settings.DA_BR;
    const std::string& pl = station_.settings.DA_PL;
    int matches = 0;
    for (const auto& name : FilesWithExtension(folder, ".bin")) {
        if (Contains(name, br)) {
            state_.DaBrPath = folder + "/" + name;
            ++matches;
        }
        if (Contains(name, pl)) {
            state_.DaPlPath = folder + "/" + name;
            ++matches;
        }
    }
    return matches > 0 ? 0 : -1;
}

std::vector<std::string> MtkPreparation::Prepare(bool startup) {
    state_ = *station_.mtkPrep.Get();
    problems_.clear();
    if (FindEfuseXml() != 0) {
        state_.EfuseEnabled = 0;
        return problems_;
    }
    LoadChipName(state_.EfuseXmlPath);
    SelectDaVariant();
    FindDaFiles();
    if (state_.DaBrPath.empty() || state_.DaPlPath.empty())
        problems_.push_back(startup ? station_.language.ChooseText(texts::kMtkDaMissingStartup)
                                    : std::string(texts::kMtkDaMissingSettings));
    state_.EfuseEnabled = 1;
    return problems_;
}

void MtkPreparation::Publish() {
    station_.mtkPrep.Set(state_);
    station_.view.SetPane(2, state_.EfuseEnabled ? texts::kEfuseEnable : texts::kEfuseDisable);
}

std::vector<std::string> MtkPreparation::PrepareMtkPackage(bool startup) {
    auto problems = Prepare(startup);
    Publish();
    return problems;
}

void MtkPreparation::RefreshPackageDisplay(app::Station& station, PackageDisplayConsole& console) {
    const app::PackageSelection& package = station.package;
    const std::string label = station.language.ChooseText(texts::kSoftwarePath) + " ";
    auto panelFont = [&console] {
        console.SetPanelFont({"Arial", static_cast<int>(console.PanelClientHeight() * 0.7), 0});
    };
    switch (package.kind) {
        case app::PackageKind::MtkScatter: {
            if (!FileExists(package.scatterFilePath)) {
                console.Tell(station.language.ChooseText(texts::kSelectScatterFirst));
                station.view.SetPane(0, "");
                station.view.SetText(app::IDC_PATH_BANNER, "");
                return;
            }
            station.view.SetPane(0, label + "\"" + package.scatterFilePath + "\"");
            console.SetBannerFont(kBannerFont);
            if (console.PreLoadPackage() != 0) return;
            const std::string version = console.PackageVersionText();
            station.view.SetText(app::IDC_PATH_BANNER, package.scatterFilePath);
            panelFont();
            station.package.version = version.empty() ? "" : "SW:" + version;
            station.view.SetText(app::IDC_PANEL, station.package.version);
            break;
        }
        case app::PackageKind::SprdPac:
            station.view.SetPane(0, label + "\"" + package.pacFilePath + "\"");
            console.SetBannerFont(kBannerFont);
            station.view.SetText(app::IDC_PATH_BANNER, package.pacFilePath);
            panelFont();
            station.package.version.clear();
            station.view.SetText(app::IDC_PANEL, "");
            break;
        case app::PackageKind::MtkCfg:
            station.view.SetPane(0, label + "\"" + package.cfgFilePath + "\"");
            console.SetBannerFont(kBannerFont);
            station.view.SetText(app::IDC_PATH_BANNER, package.cfgFilePath);
            console.PreLoadPackage();
            panelFont();
            station.package.version.clear();
            station.view.SetText(app::IDC_PANEL, "");
            break;
        default: break;
    }
    console.Repaint();
}

}  // namespace quorvel::packages
