#include "devices/DeviceText.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>

#include "engines/EngineInterfaces.h"

namespace quorvel::devices {

namespace {
std::string Upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// Digits only, without sign or blanks; -1 otherwise.
long Digits(const std::string& s) {
    if (s.empty() || s.size() > 6) return -1;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c))) return -1;
    return std::strtol(s.c_str(), nullptr, 10);
}
}  // namespace

PidClass ClassOf(const std::string& instanceId) {
    const std::string id = Upper(instanceId);
    PidClass c = PidClass::OTHER;
    if (id.find("PID_0003") != std::string::npos) c = PidClass::BROM;
    if (id.find("PID_2000") != std::string::npos) c = PidClass::PRELOADER;
    if (id.find("PID_2001") != std::string::npos) c = PidClass::DA;
    return c;
}

std::string PortNameOf(const std::string& name) {
    const auto open = name.find('(');
    const auto close = name.find(')');
    if (open == std::string::npos && close == std::string::npos) return name;
    if (open == std::string::npos) return name.substr(0, close);
    if (close == std::string::npos || close < open) return name.substr(open + 1);
    return name.substr(open + 1, close - open - 1);
}

int PortNumberOf(const std::string& portName) {
    if (portName.size() <= 3) return 0;
    return static_cast<int>(std::atoi(portName.c_str() + 3));
}

bool NamesSerialPort(const std::string& name) {
    const auto open = name.rfind("(COM");
    if (open == std::string::npos || name.empty() || name.back() != ')') return false;
    return Digits(name.substr(open + 4, name.size() - open - 5)) > 0;
}

int ComNumberOfName(const std::string& name) {
    // The worker's reading decides the number, so binding and the engines' messages never
    // disagree on a port; a name that is no serial port name has none here.
    if (!NamesSerialPort(name)) return 0;
    return std::max(engine::ExtractComNumber(name), 0);
}

std::string ComTag(unsigned long n) {
    return "(COM" + std::to_string(n) + ")";
}

int ComNumberOfNode(const std::string& node) {
    auto after = [&](const char* prefix) -> long {
        const std::string p = prefix;
        return node.rfind(p, 0) == 0 ? Digits(node.substr(p.size())) : -1;
    };
    if (long k = after("ttyACM"); k >= 0 && k < 100) return static_cast<int>(k + 1);
    if (long k = after("ttyUSB"); k >= 0 && k + 101 <= kComLast) return static_cast<int>(k + 101);
    return 0;
}

std::string NodeOfComNumber(int n) {
    if (n >= 1 && n <= 100) return "ttyACM" + std::to_string(n - 1);
    if (n >= 101 && n <= kComLast) return "ttyUSB" + std::to_string(n - 101);
    return "";
}

int UsbComNumber(const std::string& location, const std::function<bool(int)>& taken) {
    std::uint32_t hash = 2166136261u;  // FNV-1a: the same on every machine and run
    for (unsigned char c : location) hash = (hash ^ c) * 16777619u;
    constexpr int range = kUsbComLast - kUsbComFirst + 1;
    const int first = static_cast<int>(hash % range);
    for (int i = 0; i < range; ++i) {
        const int n = kUsbComFirst + (first - i + range) % range;
        if (!taken || !taken(n)) return n;
    }
    return 0;
}

bool IsUsbNode(const std::string& node) {
    return node.find("/bus/usb/") != std::string::npos;
}

std::string LookupKey(const std::string& instanceId) {
    std::string s;
    for (char c : instanceId)
        if (c != '#') s += c;
    return Upper(s);
}

}  // namespace quorvel::devices
