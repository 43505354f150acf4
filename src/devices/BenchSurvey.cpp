#include "devices/BenchSurvey.h"

#include <cerrno>
#include <dirent.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <vector>

#include "platform/ProfileIni.h"

namespace quorvel::devices {

namespace {
bool Exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> FilesIn(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d))
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        ::closedir(d);
    }
    return names;
}

bool ProcessRunning(const std::string& procRoot, const std::string& comm) {
    for (const auto& pid : FilesIn(procRoot)) {
        if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
        std::ifstream in(procRoot + "/" + pid + "/comm");
        std::string name;
        if (std::getline(in, name) && name == comm) return true;
    }
    return false;
}
// logind writes one file per seat with ACTIVE_UID= of the session in front of it.
bool ActiveOnSeat(const std::string& runSystemd, uid_t uid) {
    const std::string seats = runSystemd + "/seats";
    for (const auto& seat : FilesIn(seats)) {
        std::ifstream in(seats + "/" + seat);
        for (std::string line; std::getline(in, line);)
            if (line == "ACTIVE_UID=" + std::to_string(uid)) return true;
    }
    return false;
}

// Membership is not needed where the seat already opens the phones, or where every
// phone's node is open to this user anyway.
bool AccessWithoutGroup(const BenchFacts& f) {
    if (f.activeOnSeat && f.ruleInstalled) return true;
    bool anyNode = false;
    for (const auto& p : f.phones) {
        if (p.node.empty()) continue;
        if (!p.accessible) return false;
        anyNode = true;
    }
    return anyNode;
}
}  // namespace

BenchFacts GatherSystemFacts(const platform::SysPaths& paths) {
    BenchFacts f;
    f.modemManagerRunning = ProcessRunning(paths.proc, "ModemManager");
    for (const std::string& dir : {paths.udevRules, paths.etcUdevRules}) {
        f.ruleInstalled = f.ruleInstalled || Exists(dir + "/" + kRuleFile);
        for (const auto& name : FilesIn(dir))
            if (name.find("brltty") != std::string::npos) f.brlttyRules.push_back(dir + "/" + name);
    }
    const std::string release = KernelRelease();
    for (const char* driver : {"cdc_acm", "usbserial", "option"})
        f.drivers.emplace_back(driver, DriverPresenceOf(paths, release, driver));
    group entry{};
    std::vector<char> buffer(4096);
    group* g = nullptr;
    // getgrnam_r: the survey may run beside the station's own threads.
    while (::getgrnam_r(kOperatorGroup, &entry, buffer.data(), buffer.size(), &g) == ERANGE &&
           buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (g) {
        f.userInGroup = ::getuid() == 0 || ::getegid() == g->gr_gid;
        gid_t groups[256];
        const int n = ::getgroups(256, groups);
        for (int i = 0; i < n; ++i) f.userInGroup = f.userInGroup || groups[i] == g->gr_gid;
    } else {
        f.groupExists = false;
        f.userInGroup = false;
    }
    f.activeOnSeat = ActiveOnSeat(paths.runSystemd, ::getuid());
    return f;
}

std::vector<Finding> CheckBench(const BenchFacts& f) {
    std::vector<Finding> out;
    const std::string install = "sudo install -m644 packaging/udev/" + std::string(kRuleFile) +
                                " /usr/lib/udev/rules.d/ && sudo udevadm control --reload && sudo udevadm trigger";
    if (!f.ruleInstalled) out.push_back({"the station's udev rule is not installed", install});
    if (f.modemManagerRunning) {
        bool probed = !f.ruleInstalled;
        for (const auto& p : f.phones) probed = probed || (!p.node.empty() && !p.modemManagerIgnores);
        if (probed)
            out.push_back({"ModemManager is running and does not ignore the phones' serial ports",
                           f.ruleInstalled ? "sudo udevadm trigger (the rule sets ID_MM_DEVICE_IGNORE=1)"
                                           : "install the udev rule, or: sudo systemctl stop ModemManager"});
    }
    for (const auto& rule : f.brlttyRules)
        out.push_back({"brltty rules claim USB serial adapters: " + rule, "sudo apt-get remove brltty"});
    const std::map<std::string, std::string> configs{
        {"cdc_acm", "CONFIG_USB_ACM"}, {"usbserial", "CONFIG_USB_SERIAL"}, {"option", "CONFIG_USB_SERIAL_OPTION"}};
    for (const auto& [driver, presence] : f.drivers) {
        if (presence != DriverPresence::MISSING) continue;
        const auto config = configs.find(driver);
        out.push_back({"the kernel has no " + driver + " driver",
                       "install a kernel built with " + (config == configs.end() ? driver : config->second)});
    }
    if (!f.groupExists)
        out.push_back({std::string("the operator group ") + kOperatorGroup + " does not exist",
                       std::string("sudo groupadd --system ") + kOperatorGroup});
    else if (!f.userInGroup && !AccessWithoutGroup(f))
        out.push_back({std::string("this user is not in the group ") + kOperatorGroup,
                       std::string("sudo usermod -aG ") + kOperatorGroup + " $USER, then log in again"});
    for (const auto& p : f.phones) {
        if (!p.node.empty() && !p.accessible)
            out.push_back({"no access to " + p.node, "install the udev rule and log in at the seat or join the group " +
                                                         std::string(kOperatorGroup)});
        if (p.autosuspend)
            out.push_back({"autosuspend is on for the phone at " + p.device,
                           "echo on | sudo tee /sys/bus/usb/devices/" + p.device + "/power/control"});
    }
    for (const auto& [controller, devices] : f.controllers)
        if (devices > kAddressesPerBus)
            out.push_back({controller + " has " + std::to_string(devices) + " devices and sockets, more than the " +
                               std::to_string(kAddressesPerBus) + " it can address",
                           "move some hubs to another USB controller"});
    return out;
}

void AddBindings(std::vector<SocketRow>& rows, const std::string& stationFolder) {
    if (stationFolder.empty()) return;
    const std::string ini = stationFolder + "/Config/CommonSetting.ini";
    for (int slot = 0; slot < 16; ++slot) {
        const std::string key = "Index" + std::to_string(slot);
        const std::string hs = platform::ProfileIni::ReadString(ini, "USBPORTINFO", key, "", 260);
        const std::string ls = platform::ProfileIni::ReadString(ini, "BROMPORTINFO", key, "", 260);
        for (auto& r : rows) {
            const char* half = r.location == hs ? "HS" : r.location == ls ? "LS" : nullptr;
            if (!half || r.location.empty()) continue;
            if (!r.binding.empty()) r.binding += ", ";
            r.binding += "slot " + std::to_string(slot + 1) + " (" + half + ")";
        }
    }
}

}  // namespace quorvel::devices
