#pragma once
// A station that reads nothing of the PC it runs on (locale, network adapters): English,
// stamped 00-11-22-33-44-55. Shared by the tests, the benchmarks and the fuzz targets.

#include <cstdint>
#include <string>

#include "station/Station.h"

namespace quorvel::test {

inline app::StationOptions FixedOptions(const std::string& exeDir) {
    app::StationOptions options;
    options.exeDir = exeDir;
    options.systemLanguage = [] { return std::uint16_t{1033}; };
    options.machineStamp = [] { return std::string("00-11-22-33-44-55"); };
    return options;
}

}  // namespace quorvel::test
