#include "devices/UsbTopology.h"

#include <algorithm>
#include <cstdlib>
#include <map>

namespace quorvel::devices {

std::vector<std::size_t> PhoneInterfaces(const std::vector<InterfaceFacts>& in) {
    std::vector<std::size_t> order(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return in[a].sysname < in[b].sysname; });
    std::map<std::string, std::size_t> chosen;  // device -> interface
    for (std::size_t i : order) {
        const InterfaceFacts& f = in[i];
        if (f.interfaceClass == kCdcDataClass && !f.hasSerialPort) continue;
        auto it = chosen.find(f.device);
        if (it == chosen.end())
            chosen.emplace(f.device, i);
        else if (f.hasSerialPort && !in[it->second].hasSerialPort)
            it->second = i;
    }
    std::vector<std::size_t> out;
    out.reserve(chosen.size());
    for (const auto& [device, i] : chosen) out.push_back(i);
    std::sort(out.begin(), out.end(), [&](std::size_t a, std::size_t b) { return in[a].sysname < in[b].sysname; });
    return out;
}

bool IsUsbDownloadInterface(const std::string& vid, const std::string& pid, const std::string& cls,
                            const std::string& driver) {
    return vid == "1782" && (pid == "4d00" || pid == "4d03") && (cls == "ff" || cls == "FF") &&
           (driver.empty() || driver == "usbfs");
}

std::string HubIdentity(const HubFacts& hub) {
    if (!hub.idPath.empty()) return hub.idPath;
    if (hub.controllerPath.empty()) return hub.sysname;
    // The shape udev's path_id gives: the controller, then the USB port chain.
    std::string id = hub.controllerPath + (hub.usb3 ? "-usbv3" : "-usbv2");
    if (!hub.devpath.empty() && hub.devpath != "0") id += "-0:" + hub.devpath;
    return id;
}

std::string SocketLocation(const std::string& hubIdentity, unsigned port) {
    return hubIdentity + "\\PORT" + std::to_string(port);
}

bool IsUsb11RootHub(bool rootHub, const std::string& version, const std::string& speed) {
    if (!rootHub) return false;
    const auto first = version.find_first_not_of(' ');
    if (first != std::string::npos) return version.compare(first, 2, "1.") == 0;
    return speed == "12" || speed == "1.5";
}

unsigned PortOfDevpath(const std::string& devpath) {
    if (devpath.empty() || devpath == "0") return 0;
    const auto cut = devpath.find_last_of('.');
    const std::string last = cut == std::string::npos ? devpath : devpath.substr(cut + 1);
    char* end = nullptr;
    const unsigned long port = std::strtoul(last.c_str(), &end, 10);
    return end && *end == '\0' && !last.empty() && port > 0 && port < 256 ? static_cast<unsigned>(port) : 0;
}

}  // namespace quorvel::devices
