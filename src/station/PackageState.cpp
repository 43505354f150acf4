#include "station/PackageState.h"

#include "station/Texts.h"

namespace quorvel::app {

namespace {
const std::string kNone;
}  // namespace

const std::string& PackageSelection::ActivePath() const {
    switch (kind) {
        case PACKAGE_MTK_SCATTER: return scatterFilePath;
        case PACKAGE_SPRD_PAC: return pacFilePath;
        case PACKAGE_MTK_CFG: return cfgFilePath;
        default: return kNone;
    }
}

const std::string& PackageSelection::ActiveFolder() const {
    switch (kind) {
        case PACKAGE_MTK_SCATTER: return firmwareFolder;
        case PACKAGE_SPRD_PAC: return pacFolder;
        case PACKAGE_MTK_CFG: return cfgFolder;
        default: return kNone;
    }
}

LangText DownloadTypeName(std::int32_t downloadType) {
    if (downloadType < 0 || downloadType > 11) return {"", ""};
    return texts::kDownloadTypeNames[downloadType];
}

}  // namespace quorvel::app
