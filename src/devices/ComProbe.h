#pragma once
// Waits until the COM port named in a phone's friendly name can be opened, then
// closes it again. Runs on the caller's thread (the station thread) and blocks it
// for the whole probe; sleeps go through the clock.

#include <functional>
#include <string>

#include "platform/Clock.h"

namespace quorvel::devices {

// An open serial port; at most one per slot.
class SerialPort {
public:
    SerialPort() = default;
    ~SerialPort() { Close(); }
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    // Opens the node exclusively (no other opener before or after) and sets it to
    // `baud` 8N1, raw; a port still open is purged and closed first.
    bool Open(const std::string& node, int baud);
    // Purges and closes; false only when close fails.
    bool Close();
    bool IsOpen() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

class ComProbe {
public:
    static constexpr int kAttempts = 100;
    static constexpr platform::Millis kSpacingMs = 10;

    // `nodeOf` maps a COM number to its device node path; empty when there is none.
    ComProbe(platform::Clock& clock, std::function<std::string(int)> nodeOf)
        : clock_(clock), nodeOf_(std::move(nodeOf)) {}

    bool Probe(const std::string& friendlyName);

private:
    platform::Clock& clock_;
    std::function<std::string(int)> nodeOf_;
};

}  // namespace quorvel::devices
