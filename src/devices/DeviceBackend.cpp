#include "devices/DeviceBackend.h"

#include <algorithm>

namespace quorvel::devices {

void PortTable::Add(const std::string& location, const std::string& instanceId) {
    if (location.empty()) return;
    if (std::find(locations.begin(), locations.end(), location) != locations.end()) return;
    locations.push_back(location);
    instanceIds.push_back(instanceId);
}

void ChangeSignal::Notify() {
    {
        std::lock_guard g(mutex_);
        ++generation_;
    }
    cv_.notify_all();
}

void ChangeSignal::Interrupt() {
    { std::lock_guard g(mutex_); }
    cv_.notify_all();
}

std::uint64_t ChangeSignal::Generation() const {
    std::lock_guard g(mutex_);
    return generation_;
}

}  // namespace quorvel::devices
