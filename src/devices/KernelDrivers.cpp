#include "devices/KernelDrivers.h"

#include <sys/stat.h>
#include <sys/utsname.h>

#include <fstream>

namespace quorvel::devices {

namespace {
std::string Normalised(std::string name) {
    for (char& c : name)
        if (c == '-') c = '_';
    return name;
}

// Whether a module list (one path a line, "path:" followed by dependencies in
// modules.dep) names the driver.
bool ListNames(const std::string& file, const std::string& driver) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        const auto colon = line.find(':');
        if (ModuleNameOfPath(colon == std::string::npos ? line : line.substr(0, colon)) == driver) return true;
    }
    return false;
}
}  // namespace

std::string KernelRelease() {
    utsname u{};
    return ::uname(&u) == 0 ? u.release : "";
}

std::string ModuleNameOfPath(const std::string& path) {
    std::string base = path.substr(path.find_last_of('/') + 1);
    while (!base.empty() && (base.back() == '\r' || base.back() == ' ')) base.pop_back();
    const auto ko = base.find(".ko");
    if (ko == std::string::npos) return "";
    return Normalised(base.substr(0, ko));
}

DriverPresence DriverPresenceOf(const platform::SysPaths& paths, const std::string& release,
                                const std::string& driver) {
    if (driver.empty()) return DriverPresence::MISSING;
    struct stat st {};
    if (::stat((paths.sys + "/bus/usb/drivers/" + driver).c_str(), &st) == 0) return DriverPresence::LOADED;
    const std::string wanted = Normalised(driver);
    const std::string dir = paths.modules + "/" + release + "/";
    if (release.empty()) return DriverPresence::MISSING;
    if (ListNames(dir + "modules.builtin", wanted)) return DriverPresence::BUILT_IN;
    if (ListNames(dir + "modules.dep", wanted)) return DriverPresence::MODULE;
    return DriverPresence::MISSING;
}

}  // namespace quorvel::devices
