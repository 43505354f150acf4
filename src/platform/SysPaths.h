#pragma once
// Roots of the system trees, from one place so tests can point them elsewhere.
#include <string>

namespace quorvel::platform {

struct SysPaths {
    std::string sys = "/sys";
    std::string dev = "/dev";
    std::string runUdev = "/run/udev";
    std::string runSystemd = "/run/systemd";  // logind's seats
    std::string proc = "/proc";
    std::string modules = "/lib/modules";  // holds one folder per kernel release
    std::string udevRules = "/usr/lib/udev/rules.d";
    std::string etcUdevRules = "/etc/udev/rules.d";
};

}  // namespace quorvel::platform
