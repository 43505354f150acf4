#include "present/SettingsDialogLogic.h"

#include <unistd.h>

#include "platform/ExeDir.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::app {

namespace {
constexpr platform::Millis kSettleMs = 1000;

bool Contains(const std::string& s, const char* part) {
    return s.find(part) != std::string::npos;
}
}  // namespace

std::string SettingsDialogLogic::Title() const {
    return station_.language.ChooseText(texts::kSettingsTitle);
}
std::string SettingsDialogLogic::PathLabel() const {
    return station_.language.ChooseText(texts::kSelectPathLabel);
}
std::string SettingsDialogLogic::LoadButton() const {
    return station_.language.ChooseText(texts::kLoadButton);
}
std::string SettingsDialogLogic::OkButton() const {
    return station_.language.ChooseText(texts::kConfirmButton);
}
std::string SettingsDialogLogic::CancelButton() const {
    return station_.language.ChooseText(texts::kCancelButton);
}
std::vector<SettingsDialogLogic::FileFilterEntry> SettingsDialogLogic::FileFilters() {
    return {{"txt file (*.txt;*.bin)", {"*.txt", "*.pac", "*.cfg"}}};
}

void SettingsDialogLogic::FillList() {
    entries_.clear();
    listEnabled_ = true;
    selected_ = -1;
    const Language& lang = station_.language;
    switch (station_.package.kind) {
        case PackageKind::MtkScatter:
            for (const auto& e : texts::kScatterOperations) entries_.push_back(lang.ChooseText(e));
            break;
        case PackageKind::MtkCfg:
            for (const auto& e : texts::kCfgOperations) entries_.push_back(lang.ChooseText(e));
            break;
        case PackageKind::SprdPac: listEnabled_ = false; break;
        default: break;
    }
}

void SettingsDialogLogic::Open() {
    const PackageSelection& pkg = station_.package;
    path_ = pkg.ActivePath();
    FillList();
    if (pkg.kind == PackageKind::MtkScatter) {
        station_.clock.Sleep(kSettleMs);
        switch (pkg.downloadType) {
            case 0: selected_ = 1; break;
            case 3: selected_ = 2; break;
            case 8: selected_ = 3; break;
            default: selected_ = 0; break;
        }
    } else if (pkg.kind == PackageKind::MtkCfg) {
        selected_ = 0;
    }
}

void SettingsDialogLogic::Load(const std::optional<std::string>& path) {
    PackageSelection& pkg = station_.package;
    if (path) {
        if (Contains(*path, "scatter.txt")) pkg.kind = PackageKind::MtkScatter;
        if (Contains(*path, ".pac")) pkg.kind = PackageKind::SprdPac;
        if (Contains(*path, ".cfg")) pkg.kind = PackageKind::MtkCfg;
        FillList();
        if (listEnabled_ && !entries_.empty()) selected_ = 0;
        path_ = *path;
    }
    // The next start prepares the package again, whatever was chosen here.
    if (pkg.kind == PackageKind::MtkScatter) pkg.verified = false;
    if (pkg.kind == PackageKind::SprdPac) pkg.prepared = false;
}

bool SettingsDialogLogic::Ok() {
    const Language& lang = station_.language;
    if (path_.empty()) {
        tell_(lang.ChooseText(texts::kSelectFolderFirst));
        return false;
    }
    // An existence and write-access test: unlike opening for appending, it never creates files.
    if (::access(path_.c_str(), F_OK | W_OK) != 0) {
        tell_(lang.ChooseText(texts::kSelectScatterFirst));
        return false;
    }
    PackageSelection& pkg = station_.package;
    const std::string folder = platform::FolderOf(path_);
    const int number = selected_ >= 0 && selected_ < static_cast<int>(entries_.size()) && !entries_[selected_].empty()
                           ? entries_[static_cast<std::size_t>(selected_)][0] - '0'
                           : 0;
    switch (pkg.kind) {
        case PackageKind::MtkScatter:
            pkg.firmwareFolder = folder;
            pkg.scatterFilePath = path_;
            pkg.reserveUserData = false;
            switch (number) {
                case 2:
                    pkg.downloadType = 0;
                    tell_(texts::kFormatAllWarning);
                    break;
                case 3: pkg.downloadType = 3; break;
                case 4:
                    pkg.downloadType = 8;
                    pkg.reserveUserData = true;
                    break;
                default: pkg.downloadType = 1; break;
            }
            station_.clock.Sleep(kSettleMs);
            break;
        case PackageKind::MtkCfg:
            pkg.cfgFolder = folder;
            pkg.cfgFilePath = path_;
            pkg.cfgBackupRestore = station_.settings.BackupandRestore != 0 || number == 3;
            station_.clock.Sleep(kSettleMs);
            break;
        case PackageKind::SprdPac:
            pkg.pacFolder = folder;
            pkg.pacFilePath = path_;
            break;
        default: break;
    }
    return true;
}

void SettingsDialogLogic::Cancel() {
    path_.clear();
}

}  // namespace quorvel::app
