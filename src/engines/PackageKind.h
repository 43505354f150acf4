#pragma once
// Which kind of package the station has chosen. Here, below the station, because the engine
// factories decide by it too.

#include <cstdint>

namespace quorvel::app {

enum class PackageKind : std::int32_t { None = 0, MtkScatter = 1, SprdPac = 2, MtkCfg = 3 };

}  // namespace quorvel::app
