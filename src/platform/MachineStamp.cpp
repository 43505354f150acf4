#include "platform/MachineStamp.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

namespace quorvel::platform {

namespace {
std::string ReadFirstLine(const std::filesystem::path& p) {
    std::ifstream in(p);
    std::string line;
    std::getline(in, line);
    return line;
}
}  // namespace

std::string FirstAdapterMac(const SysPaths& paths) {
    namespace fs = std::filesystem;
    struct Adapter {
        long index;
        unsigned bytes[6];
    };
    std::vector<Adapter> adapters;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(fs::path(paths.sys) / "class/net", ec)) {
        const auto& dir = entry.path();
        // Only physical adapters: bridges, veth, tun, docker and other virtual ones
        // have no device behind them, and their addresses may change at boot.
        if (!fs::exists(dir / "device", ec)) continue;
        Adapter a{};
        const std::string address = ReadFirstLine(dir / "address");
        char tail = 0;
        if (std::sscanf(address.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &a.bytes[0], &a.bytes[1], &a.bytes[2],
                        &a.bytes[3], &a.bytes[4], &a.bytes[5], &tail) != 6)
            continue;
        if (std::all_of(std::begin(a.bytes), std::end(a.bytes), [](unsigned b) { return b == 0; })) continue;
        try {
            a.index = std::stol(ReadFirstLine(dir / "ifindex"));
        } catch (...) {
            continue;
        }
        adapters.push_back(a);
    }
    if (adapters.empty()) return {};
    const auto& first =
        *std::min_element(adapters.begin(), adapters.end(), [](auto& x, auto& y) { return x.index < y.index; });
    char text[18];
    std::snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X", first.bytes[0], first.bytes[1], first.bytes[2],
                  first.bytes[3], first.bytes[4], first.bytes[5]);
    return text;
}

}  // namespace quorvel::platform
