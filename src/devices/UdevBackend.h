#pragma once
// The device backend of a real bench, on udev: hubs and their port counts from the
// USB topology, Windows-shaped instance IDs (USB\VID_xxxx&PID_xxxx\<sysfs name>) so
// the station's text rules work unchanged, one device per phone (the interface that
// owns the serial port), socket locations "<hub's physical path>\PORT<n>" that stay
// the same across re-plugging, reboots and added controllers, driver services as kernel drivers through
// the alias table, friendly names "<product> (COM<n>)" from the serial node, and
// hot-plug from a udev monitor. Phones served through their USB node (a vendor
// interface no serial driver binds) belong to the SPRD service's list, named with their
// socket's own COM number (DeviceText's UsbComNumber, kept per location while the
// backend lives); their "serial node" is the USB node. Any thread may call; each call opens its own udev
// context, and one background thread watches the monitor.

#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "devices/BenchSurvey.h"
#include "devices/DeviceBackend.h"
#include "platform/SysPaths.h"
#include "platform/UniqueFd.h"

struct udev;
struct udev_device;

namespace quorvel::devices {

class UdevBackend final : public DeviceBackend {
public:
    // `aliases`: service name -> kernel driver name; other names are drivers themselves.
    UdevBackend(platform::SysPaths paths, std::map<std::string, std::string> aliases);
    ~UdevBackend() override;
    UdevBackend(const UdevBackend&) = delete;
    UdevBackend& operator=(const UdevBackend&) = delete;

    std::vector<app::HubPortEntry> EnumerateHubPorts() override;
    std::vector<app::DeviceInfo> EnumeratePreloaderDevices() override;
    bool ServiceExists(const std::string& service) override;
    std::optional<std::vector<std::string>> ServiceDevices(const std::string& service) override;
    PortTable BuildPortTable(const std::string& service) override;
    std::optional<std::string> FriendlyNameOf(const std::string& instanceId) override;
    std::string SerialNodeOf(int comNumber) override;
    std::optional<PortDevice> DeviceOfPort(int comNumber) override;
    ChangeSignal& Changes() override { return changes_; }

    // Every socket of every hub (USB 1.1 root hubs left out), with what is plugged in.
    std::vector<SocketRow> Sockets();
    // The phones' serial nodes and the load of each controller.
    void AddDeviceFacts(BenchFacts& facts);

    std::string DriverOf(const std::string& service) const;
    bool DriverLoaded(const std::string& driver) const;

private:
    struct Interface {
        std::string sysname, instanceId, location;
    };
    // The phones' interfaces of the service, sorted by sysfs name.
    std::vector<Interface> InterfacesOf(const std::string& service);
    // The COM number of a socket whose phone has no serial node.
    int UsbComAt(const std::string& location);
    std::string LocationOfUsbCom(int comNumber);
    std::string UsbNodeOfPort(int comNumber);
    void Watch();

    platform::SysPaths paths_;
    std::map<std::string, std::string> aliases_;
    std::string release_;
    ChangeSignal changes_;
    std::mutex namesMutex_;
    std::map<std::string, std::string> names_;  // last known name of each device asked about
    std::mutex comsMutex_;
    std::map<std::string, int> usbComs_;  // location -> its COM number
    platform::UniqueFd stopFd_;
    std::thread watcher_;
};

}  // namespace quorvel::devices
