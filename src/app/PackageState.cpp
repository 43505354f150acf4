#include "app/PackageState.h"

#include "app/Texts.h"

namespace quorvel::app {

LangText DownloadTypeName(std::int32_t downloadType) {
    if (downloadType < 0 || downloadType > 11) return {"", ""};
    return texts::kDownloadTypeNames[downloadType];
}

}  // namespace quorvel::app
