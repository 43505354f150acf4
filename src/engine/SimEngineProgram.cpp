#include "engine/SimEngineProgram.h"

#include <unistd.h>

#include <cstdio>

#include "platform/ExeDir.h"

namespace quorvel::engine {

std::string FindSimEngineProgram(const std::string& stationDir) {
    const std::string here = platform::ExeDir();
    for (const std::string& path :
         {stationDir + "quorvel-sim-engine", here + "quorvel-sim-engine",
          here + "../quorvel-sim-engine/quorvel-sim-engine", here + "../tools/quorvel-sim-engine/quorvel-sim-engine"}) {
        if (::access(path.c_str(), X_OK) == 0) return path;
    }
    return "quorvel-sim-engine";
}

std::string SimEngineCommandLine(const std::string& program, const char* platform, double timeScale) {
    char scale[32];
    std::snprintf(scale, sizeof scale, "%g", timeScale > 0 ? timeScale : 1.0);
    std::string line = "\"" + program + "\" --platform " + platform + " --time-scale " + scale + " --package {package}";
    line += std::string(platform) == "SPRD" ? " --phase {phase}" : " --device {device}";
    return line;
}

std::vector<std::string> SimProfileArgs(const PhoneProfile& p) {
    std::vector<std::string> a{
        "--duration", std::to_string(p.durationMs), "--size",        std::to_string(p.sizeBytes),
        "--speed",    std::to_string(p.speedMBps),  "--sprd-phase1", std::to_string(p.sprdPhase1Ms)};
    if (!p.pass) {
        if (p.failingStep >= 0)
            a.insert(a.end(), {"--fail-step", std::to_string(p.failingStep)});
        else
            a.push_back("--fail");
    }
    if (!p.switchPort) a.push_back("--no-switch");
    return a;
}

}  // namespace quorvel::engine
