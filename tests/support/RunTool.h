#pragma once
// Runs one of the station's command-line tools, or any shell command, as a user would,
// and keeps what it printed on both streams.
#include <string>

namespace quorvel::test {

struct CommandResult {
    int exitCode = -1;  // -1 when it could not run or did not exit by itself
    std::string out;    // standard output and standard error together
};

CommandResult RunCommand(const std::string& command);
// The built tool `name` (tools/<name>/<name> beside the test programs).
std::string ToolPath(const std::string& name);

}  // namespace quorvel::test
