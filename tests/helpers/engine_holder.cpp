// Stands in for a station that is killed while an engine program runs: starts the
// program given after the record folder, prints its pid, and waits to be killed.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    std::string error;
    auto child =
        quorvel::platform::ChildProcess::Spawn(std::vector<std::string>(argv + 2, argv + argc), false, error, argv[1]);
    if (!child) return 3;
    std::printf("%d\n", static_cast<int>(child->Pid()));
    std::fflush(stdout);
    for (;;) ::pause();
}
