#include "support/RunTool.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>

#include "platform/ExeDir.h"

namespace quorvel::test {

CommandResult RunCommand(const std::string& command) {
    CommandResult r;
    FILE* p = ::popen((command + " 2>&1").c_str(), "r");
    if (!p) return r;
    std::array<char, 65536> buf;
    while (std::size_t n = std::fread(buf.data(), 1, buf.size(), p)) r.out.append(buf.data(), n);
    const int status = ::pclose(p);
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

std::string ToolPath(const std::string& name) {
    return platform::ExeDir() + "../tools/" + name + "/" + name;
}

}  // namespace quorvel::test
