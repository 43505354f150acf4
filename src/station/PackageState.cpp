#include "station/PackageState.h"

#include "station/Texts.h"

namespace quorvel::app {

namespace {
const std::string kNone;
}  // namespace

const std::string& PackageSelection::ActivePath() const {
    switch (kind) {
        case PackageKind::MtkScatter: return scatterFilePath;
        case PackageKind::SprdPac: return pacFilePath;
        case PackageKind::MtkCfg: return cfgFilePath;
        default: return kNone;
    }
}

const std::string& PackageSelection::ActiveFolder() const {
    switch (kind) {
        case PackageKind::MtkScatter: return firmwareFolder;
        case PackageKind::SprdPac: return pacFolder;
        case PackageKind::MtkCfg: return cfgFolder;
        default: return kNone;
    }
}

LangText DownloadTypeName(std::int32_t downloadType) {
    if (downloadType < 0 || downloadType > 11) return {"", ""};
    return texts::kDownloadTypeNames[downloadType];
}

}  // namespace quorvel::app
