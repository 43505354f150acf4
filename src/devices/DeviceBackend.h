#pragma once
// What the station needs to know about the USB devices present: hub ports, phones
// already in preloader mode, the devices each driver service drives, where each one
// sits, what it is called, and when any of that changes. Implemented on udev for a
// real bench and by the simulated bench. Every call returns plain values and keeps
// no state the caller relies on. Any thread may call any method.

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engines/EngineRecords.h"
#include "platform/Clock.h"

namespace quorvel::devices {

// (location, instance ID) pairs of the present devices of one service; the first
// device seen at a location wins, so locations are unique.
struct PortTable {
    std::vector<std::string> locations;
    std::vector<std::string> instanceIds;
    // Appends unless the location is empty or already there.
    void Add(const std::string& location, const std::string& instanceId);
};

// A generation counter that the backend bumps on every device change; waiters
// block through the station clock until it moves or they are interrupted.
class ChangeSignal {
public:
    void Notify();
    // Wakes every waiter without a change, so it can test its own stop condition.
    void Interrupt();
    std::uint64_t Generation() const;
    // Blocks until the generation differs from `seen`, `stop()` holds or the clock
    // reaches `deadline` (kForever: no limit).
    template <class Stop>
    std::uint64_t Wait(platform::Clock& clock, std::uint64_t seen, Stop stop,
                       platform::Millis deadline = platform::kForever) {
        std::unique_lock lk(mutex_);
        const auto moved = [&] { return generation_ != seen || stop(); };
        if (deadline == platform::kForever)
            clock.WaitFor(lk, cv_, platform::kForever, moved);
        else
            clock.WaitUntil(lk, cv_, deadline, moved);
        return generation_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::uint64_t generation_ = 0;
};

// Where the phone of a COM port sits.
struct PortDevice {
    std::string instanceId, location;
};

class DeviceBackend {
public:
    virtual ~DeviceBackend() = default;

    // Every downstream port of the hubs, in enumeration order.
    virtual std::vector<app::HubPortEntry> EnumerateHubPorts() = 0;
    // The phones present in preloader mode: type 2, friendly name, hub port filled.
    virtual std::vector<app::DeviceInfo> EnumeratePreloaderDevices() = 0;
    // Whether the driver service is known to the system.
    virtual bool ServiceExists(const std::string& service) = 0;
    // The instance IDs of the devices the service drives, in a stable order; nothing
    // while the service has no device list yet (or does not exist).
    virtual std::optional<std::vector<std::string>> ServiceDevices(const std::string& service) = 0;
    // Locations of the present devices of the service.
    virtual PortTable BuildPortTable(const std::string& service) = 0;
    // The device's friendly name; nothing when it has none.
    virtual std::optional<std::string> FriendlyNameOf(const std::string& instanceId) = 0;
    // The serial device node of COM<n>; empty when there is none.
    virtual std::string SerialNodeOf(int comNumber) = 0;
    // The present device that COM<n> belongs to; nothing when none is known.
    virtual std::optional<PortDevice> DeviceOfPort(int) { return std::nullopt; }
    // Bumped on every change of the device lists.
    virtual ChangeSignal& Changes() = 0;
};

}  // namespace quorvel::devices
