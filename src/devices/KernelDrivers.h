#pragma once
// Whether a kernel driver is there for the kernel to use: registered now, built in,
// or installable as a module of the running kernel. A driver that is only installable
// is loaded by the kernel when its first device shows up, so it counts as present.
// Reads /sys/bus/usb/drivers and /lib/modules/<release>/modules.{builtin,dep} (roots
// from SysPaths). Any thread.

#include <string>

#include "platform/SysPaths.h"

namespace quorvel::devices {

enum class DriverPresence { MISSING, LOADED, BUILT_IN, MODULE };

// The running kernel's release (uname -r).
std::string KernelRelease();

// A module file name ("kernel/drivers/usb/class/cdc-acm.ko.zst") -> its name as
// a driver ("cdc_acm").
std::string ModuleNameOfPath(const std::string& path);

DriverPresence DriverPresenceOf(const platform::SysPaths& paths, const std::string& release, const std::string& driver);
inline bool DriverAvailable(const platform::SysPaths& paths, const std::string& release, const std::string& driver) {
    return DriverPresenceOf(paths, release, driver) != DriverPresence::MISSING;
}

}  // namespace quorvel::devices
