#pragma once
// The device-arrival watch of one run: on every change of the watched service's
// device list it reports removals, then arrivals, to the console with message 6024,
// sent synchronously. SelectMonitorService picks the service when a run starts.
// A phone is reported once, with its serial port when that comes in time.
//
// Threads: Start, Retire and the destructor on the station thread; the watch on its
// own thread. A new Start retires the previous watch first: a retired watch wakes at
// once, sends nothing more and ends, so two watches never serve one station. A watch
// blocked in a send to the station thread cannot be joined from it, so retired
// threads are joined once they have ended (at the next Start, or in the destructor,
// which must run after the station loop has stopped or while no watch sends).

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "devices/DeviceBackend.h"
#include "station/Messages.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::devices {

// A device event's texts are as long as the engines' records hold them: `text` up to
// its first NUL, cut to `chars`.
inline constexpr std::size_t kEventIdChars = 63;
inline constexpr std::size_t kEventNameChars = 63;
inline constexpr std::size_t kEventLocationChars = 259;
std::string EventText(const std::string& text, std::size_t chars);

// MonitorService values and what they watch.
struct MonitorChoice {
    std::string service;
    int contextKind;  // 0 MTK, 2 serial, 3 CFG
};
MonitorChoice MonitorChoiceOf(int monitorService, const std::string& configuredService);
app::EventKind EventKindOf(int contextKind);

// Removals (in the previous list's order), then arrivals (in the current order).
struct ListDiff {
    std::vector<std::string> removed, arrived;
};
ListDiff DiffLists(const std::vector<std::string>& previous, const std::vector<std::string>& current);

// The location of the first table entry whose instance ID contains the looked-up ID.
std::string LocationIn(const PortTable& table, const std::string& instanceId);

class DeviceMonitor {
public:
    // A phone's serial port often appears a little after its interface is bound; its
    // arrival is held back until the port is there, for at most this long, and then
    // reported without a port. Ports of cdc_acm and option appear within tens of ms;
    // the rest covers a loaded machine and slow udev rules.
    static constexpr platform::Millis kSerialPortWaitMs = 1500;

    DeviceMonitor(app::Station& station, DeviceBackend& backend, app::MessageWindow& console);
    ~DeviceMonitor();
    DeviceMonitor(const DeviceMonitor&) = delete;
    DeviceMonitor& operator=(const DeviceMonitor&) = delete;

    // Station thread, from PreStartCheck: sets MonitorService. Returns why the run must not
    // start (the operator's message), or empty.
    std::string SelectMonitorService();
    int MonitorService() const { return monitorService_; }
    const std::string& ConfiguredService() const { return configuredService_; }

    // Retires the running watch (if any) and starts a new one for MonitorService.
    void Start();
    // Retires the running watch without starting another.
    void Retire();
    // Number of watch threads that have not ended yet (tests).
    int LiveWatches() const;

    // A SPRD first phase on COM<port> ended with the phone switching to its download
    // port (any thread, once the phase's program has ended). A phone that re-enumerates
    // arrives anew by itself; one that stays connected from boot ROM to reset gives no
    // arrival, so the watch announces it again on its socket: once it is still (or again)
    // present, at least kReannounceMs later and once its slot has left the first phase
    // (is no longer BUSY), unless an arrival of that port was reported in between.
    void PhaseOneSwitched(unsigned long port);
    static constexpr platform::Millis kReannounceMs = 1000;
    // A phone that has not come back by then is not awaited any longer.
    static constexpr platform::Millis kReannounceGiveUpMs = 60000;

private:
    struct Watch {
        std::atomic<bool> retired{false};
        std::atomic<bool> ended{false};
        std::thread thread;
    };
    void Run(Watch& watch, const MonitorChoice& choice);
    void SendEvent(const std::string& instanceId, bool arrived, const MonitorChoice& choice);
    // Announces the switched phones that are due; the next time to look again, or kForever.
    platform::Millis Reannounce(Watch& w, const std::vector<std::string>& present, const MonitorChoice& choice);
    struct Switched {
        int port;
        platform::Millis due, giveUp;
    };
    void JoinEnded();

    app::Station& station_;
    DeviceBackend& backend_;
    app::MessageWindow& console_;
    int monitorService_ = 0;
    std::string configuredService_;
    // The change "event": signalled until a pass consumes the generation it saw.
    std::atomic<std::uint64_t> consumed_{~std::uint64_t{0}};
    std::mutex switchedMutex_;
    std::vector<Switched> switched_;
    std::atomic<bool> switchedNew_{false};  // wakes the watch
    std::unique_ptr<Watch> current_;
    std::vector<std::unique_ptr<Watch>> retired_;
};

}  // namespace quorvel::devices
