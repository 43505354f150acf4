#pragma once
// The simulated bench: virtual hubs whose sockets each have an LS and an HS
// location, and virtual phones plugged into them. A phone shows up in the device
// list of its driver service in its current mode, with a friendly name ending in
// "(COM<n>)" backed by a real pseudo-terminal, and re-enumerates when the simulated
// engine switches it (BROM to DA, SPRD to its download port).
// Phones present themselves as real ones do: an MTK phone (cdc_acm) has two
// interfaces, the control half owning the serial port and the data half; the serial
// port appears SetSerialDelay ms after the interface (0 by default); port numbers
// are reused lowest-free; every mode switch is a new device.
// A SPRD phone switched to its download port is gone for a moment (kReEnumerateMs
// on the clock) before it shows up again, as a real one is; the worker relies on
// that pause. A BROM phone shows up in DA mode at once, because the simulated MTK
// engine goes on over the DA port without waiting for it.
// Any thread may call any method; the engine's switch hook arrives on engine threads.

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "devices/DeviceBackend.h"
#include "platform/UniqueFd.h"
#include "sim/SimEngines.h"
#include "sim/SprdPhoneProgram.h"

namespace quorvel::sim {

// What a phone is when it is plugged in.
enum class PhoneKind { MTK_BROM, MTK_PRELOADER, SPRD, CFG };
// What it shows as now.
enum class PhoneMode { BROM, PRELOADER, DA, SPRD, SPRD_DOWNLOAD, CFG };

std::optional<PhoneKind> PhoneKindOf(const std::string& word);

// The sockets a bench scenario plugs phones into: the simulated bench, or a device tree
// shaped like one. Any thread may call it.
class ScenarioBench {
public:
    virtual ~ScenarioBench() = default;
    virtual int SocketCount() const = 0;
    virtual std::string HsLocation(int socket) const = 0;
    virtual std::string LsLocation(int socket) const = 0;
    // False when the socket does not exist or is taken, or the phone could not be made.
    virtual bool Plug(int socket, PhoneKind kind, const engine::PhoneProfile& profile) = 0;
    virtual bool Unplug(int socket) = 0;
    // How long after a phone (or its new mode) appears its serial port does; for later plugs.
    virtual void SetSerialDelay(platform::Millis ms) = 0;
    virtual std::optional<PhoneMode> ModeAt(int socket) const = 0;
};

class SimBench final : public devices::DeviceBackend, public ScenarioBench {
public:
    static constexpr platform::Millis kReEnumerateMs = 1000;

    SimBench(int hubs, int socketsPerHub, engine::SimPhoneRegistry& registry, platform::Clock& clock);
    ~SimBench() override;

    int SocketCount() const override { return hubs_ * socketsPerHub_; }
    void SetSerialDelay(platform::Millis ms) override;
    // Sockets are numbered from 0 across the hubs.
    std::string HsLocation(int socket) const override;
    std::string LsLocation(int socket) const override;

    // False also when no pseudo-terminal could be made.
    bool Plug(int socket, PhoneKind kind, const engine::PhoneProfile& profile) override;
    bool Unplug(int socket) override;
    std::optional<PhoneMode> ModeAt(int socket) const override;
    // The instance ID the phone on the socket shows now; empty when there is none.
    std::string InstanceIdAt(int socket) const;
    // Whether an engine is working with the phone on `socket`.
    bool JobRunningAt(int socket) const;
    std::string FriendlyNameAt(int socket) const;

    std::vector<app::HubPortEntry> EnumerateHubPorts() override;
    std::vector<app::DeviceInfo> EnumeratePreloaderDevices() override;
    bool ServiceExists(const std::string& service) override;
    std::optional<std::vector<std::string>> ServiceDevices(const std::string& service) override;
    devices::PortTable BuildPortTable(const std::string& service) override;
    std::optional<std::string> FriendlyNameOf(const std::string& instanceId) override;
    std::string SerialNodeOf(int comNumber) override;
    std::optional<devices::PortDevice> DeviceOfPort(int comNumber) override;
    devices::ChangeSignal& Changes() override { return changes_; }

    // SPRD phones from now on play the device side of the download protocol, one
    // quorvel-sprd-phone each (SprdPhoneProgram.h); a phone whose program cannot start
    // is not plugged. One that stays connected does not leave on its switch.
    void UseSprdPhonePrograms(std::unique_ptr<SprdPhonePrograms> programs);
    // Where the phone of COM<com> plugged as `plug` writes its report; empty without programs.
    std::string SprdReportPath(int com, std::uint64_t plug) const;

private:
    struct Phone {
        PhoneKind kind;
        PhoneMode mode;
        int com = 0;
        platform::UniqueFd master;  // pseudo-terminal master; the slave is the COM port
        std::string slavePath;
        engine::PhoneProfile profile;
        std::uint64_t plugId = 0;       // tells a re-plugged phone from the one that left
        bool present = true;            // false while re-enumerating
        bool portReady = true;          // its serial port exists
        std::uint64_t enumeration = 0;  // counts its enumerations
    };
    struct Return {
        platform::Millis due;
        int socket;
        std::uint64_t plugId;
        bool keepCom;
        std::uint64_t enumeration = 0;  // non-zero: only the serial port of that enumeration appears
    };
    void ReturnLoop();
    void OnSwitch(const engine::SwitchEvent& event);
    // Gives the phone a fresh port for its current mode (a re-enumeration), with a new
    // COM number unless `keepCom`.
    bool Enumerate(int socket, Phone& phone, bool keepCom);
    void Release(Phone& phone);
    std::string InstanceIdOf(int socket, const Phone& phone, int iface = 0) const;
    std::string FriendlyNameOf(const Phone& phone) const;
    // The phones' own interfaces of the service (sorted by sysfs name), with their locations.
    std::vector<std::string> PhoneIdsLocked(const std::string& service, std::vector<std::string>* locations) const;
    std::string LocationOf(int socket, const Phone& phone) const;
    static std::string ServiceOf(const Phone& phone);
    std::string HubName(int socket, bool hs) const;

    const int hubs_, socketsPerHub_;
    engine::SimPhoneRegistry& registry_;
    devices::ChangeSignal changes_;
    mutable std::mutex mutex_;
    std::map<int, Phone> phones_;               // by socket
    std::map<std::string, bool> enumSeen_;      // services that have had a device
    std::map<std::string, std::string> names_;  // friendly names of every device seen
    int LowestFreeCom() const;
    platform::Millis serialDelay_ = 0;
    std::uint64_t nextPlugId_ = 1;
    platform::Clock& clock_;
    std::condition_variable returnsChanged_;
    std::vector<Return> returns_;
    bool stopping_ = false;
    std::thread returner_;
    std::unique_ptr<SprdPhonePrograms> sprdPhones_;  // set before the first plug
};

}  // namespace quorvel::sim
