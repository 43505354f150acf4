#pragma once
// The simulated bench on the engine program: where quorvel-sim-engine is, its command
// line per platform, and a simulated phone's profile as its arguments. Any thread.

#include <string>
#include <vector>

#include "engine/SimEngines.h"

namespace quorvel::engine {

// The first executable quorvel-sim-engine beside the station, beside this program or in
// the build tree; "quorvel-sim-engine" (found in PATH) when there is none.
std::string FindSimEngineProgram(const std::string& stationDir);

// Command line of quorvel-sim-engine for `platform` (MTK, FP, SPRD), its time running
// `timeScale` times faster, as the station clock does.
std::string SimEngineCommandLine(const std::string& program, const char* platform, double timeScale);

std::vector<std::string> SimProfileArgs(const PhoneProfile& profile);

}  // namespace quorvel::engine
