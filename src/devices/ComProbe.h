#pragma once
// Waits until the COM port named in a phone's friendly name can be opened, then
// closes it again. Runs on the caller's thread (the station thread) and blocks it
// for the whole probe; sleeps go through the clock.
//
// The probe leaves other programs alone: a port that another process has open (found
// through /proc, as fuser finds it) counts as a failed attempt and is neither flushed
// nor touched in its flags, even when running as root, where TIOCEXCL does not keep
// us out. A port that cannot be opened for lack of permission is reported once.

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/SysPaths.h"
#include "platform/UniqueFd.h"

namespace quorvel::devices {

// The processes other than this one that have `node` open; `procRoot` is /proc.
std::vector<int> HoldersOf(const std::string& procRoot, const std::string& node);

// An open serial port; at most one per slot.
class SerialPort {
public:
    explicit SerialPort(std::string procRoot = "/proc") : procRoot_(std::move(procRoot)) {}
    ~SerialPort() { Close(); }
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    // Opens the node exclusively (no other opener before or after) and sets it to
    // `baud` 8N1, raw; a port still open is purged and closed first. On failure
    // Error() tells why (an errno value; EBUSY when another process holds it).
    bool Open(const std::string& node, int baud);
    // Purges and closes; false only when close fails.
    bool Close();
    int Error() const { return error_; }

private:
    std::string procRoot_;
    platform::UniqueFd fd_;
    int error_ = 0;
};

class ComProbe {
public:
    static constexpr int kAttempts = 100;
    static constexpr platform::Millis kSpacingMs = 10;
    using Report = std::function<void(const std::string& text)>;

    // `nodeOf` maps a COM number to its device node path; empty when there is none.
    // `noPermission` hears "no permission on <node>: ..." once per node.
    ComProbe(platform::Clock& clock, std::function<std::string(int)> nodeOf, Report noPermission = {},
             platform::SysPaths paths = {})
        : clock_(clock), nodeOf_(std::move(nodeOf)), noPermission_(std::move(noPermission)), paths_(std::move(paths)) {}

    bool Probe(const std::string& friendlyName);

private:
    platform::Clock& clock_;
    std::function<std::string(int)> nodeOf_;
    Report noPermission_;
    platform::SysPaths paths_;
    std::set<std::string> reported_;
};

}  // namespace quorvel::devices
