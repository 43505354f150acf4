#pragma once
// Whether a configured engine program can serve: its command line splits, the program
// exists and is executable, and asked with --version it answers with a hello of the
// station's protocol version. Runs the program once (answer within 5 s of `clock`).
// Any thread.

#include <string>

#include "platform/Clock.h"

namespace quorvel::engine {

struct ProgramCheckResult {
    bool ok = false;
    std::string program;  // the resolved path
    std::string version;  // the program's name and version from its hello
    std::string problem;  // why not, when !ok
};

ProgramCheckResult CheckEngineProgram(const std::string& commandLine, const std::string& stationDir,
                                      platform::Clock& clock);

}  // namespace quorvel::engine
