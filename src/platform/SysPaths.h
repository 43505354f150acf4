#pragma once
// Roots of the system trees, from one place so tests can point them elsewhere.
#include <string>

namespace quorvel::platform {

struct SysPaths {
    std::string sys = "/sys";
    std::string dev = "/dev";
    std::string runUdev = "/run/udev";
};

}  // namespace quorvel::platform
