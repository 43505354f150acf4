#pragma once
// What a technician needs to set up a bench: the socket map (every hub socket with the
// station's location text, what is plugged in and which slot it is bound to) and the
// bench check (what stands between the station and the phones, each finding with a
// one-line fix). Facts are gathered from the system (roots from SysPaths); the check
// itself is pure. Any thread.

#include <string>
#include <utility>
#include <vector>

#include "devices/KernelDrivers.h"
#include "platform/SysPaths.h"

namespace quorvel::devices {

// One socket of a hub and what sits in it.
struct SocketRow {
    std::string location;  // "<hub>\PORT<n>", as bindings store it
    std::string ids;       // "0e8d:2000"; empty when nothing is plugged in
    std::string product, cls, driver, node, com;
    std::string binding;  // "slot 3 (HS)"; empty when unbound
};

// A phone's serial node as the check sees it.
struct PhoneNode {
    std::string device;  // USB sysfs name, "1-1.3"
    std::string node;    // "/dev/ttyACM0"; empty when it has none
    bool autosuspend = false;
    bool modemManagerIgnores = false;
    bool accessible = true;
};

struct BenchFacts {
    bool modemManagerRunning = false;
    bool ruleInstalled = false;
    std::vector<std::string> brlttyRules;
    std::vector<std::pair<std::string, DriverPresence>> drivers;
    bool groupExists = true, userInGroup = true;
    std::vector<PhoneNode> phones;
    std::vector<std::pair<std::string, int>> controllers;  // controller, USB devices on it
    // This user's session is the active one on a seat, so the rule's "uaccess" tag
    // opens the phones to it without the group.
    bool activeOnSeat = false;
};

struct Finding {
    std::string problem, fix;
};

inline constexpr const char* kRuleFile = "70-quorvel-station.rules";
inline constexpr const char* kOperatorGroup = "quorvel";
// A USB bus has 127 addresses, hubs included.
inline constexpr int kAddressesPerBus = 127;

// The rule, brltty, ModemManager, drivers and group facts; phones and controllers are
// added by the backend that sees the devices.
BenchFacts GatherSystemFacts(const platform::SysPaths& paths);
std::vector<Finding> CheckBench(const BenchFacts& facts);

// Marks each row with the slot bound to its location in a station folder's
// Config/CommonSetting.ini (nothing when there is none).
void AddBindings(std::vector<SocketRow>& rows, const std::string& stationFolder);

}  // namespace quorvel::devices
