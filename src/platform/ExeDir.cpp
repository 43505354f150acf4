#include "platform/ExeDir.h"

#include <unistd.h>

#include <climits>

namespace quorvel::platform {

std::string ExeDir() {
    char buf[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "./";
    return FolderOf(std::string(buf, static_cast<std::size_t>(n)));
}

std::string FolderOf(const std::string& path) {
    auto cut = path.find_last_of("/\\");
    return cut == std::string::npos ? std::string() : path.substr(0, cut + 1);
}

}  // namespace quorvel::platform
