#include "devices/UdevBackend.h"

#include <libudev.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>

#include "devices/DeviceText.h"
#include "devices/KernelDrivers.h"
#include "devices/UsbTopology.h"

namespace quorvel::devices {

namespace {

struct UdevDeleter {
    void operator()(struct udev* u) const { udev_unref(u); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
    void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
    void operator()(udev_monitor* m) const { udev_monitor_unref(m); }
};
using Udev = std::unique_ptr<struct udev, UdevDeleter>;
using Device = std::unique_ptr<udev_device, UdevDeleter>;

std::string Attr(udev_device* d, const char* name) {
    const char* v = d ? udev_device_get_sysattr_value(d, name) : nullptr;
    return v ? v : "";
}

std::string Text(const char* v) {
    return v ? v : "";
}

// Walks the devices of one subsystem (and devtype), calling `f` with each.
void ForEach(struct udev* u, const char* subsystem, const char* devtype, const std::function<void(udev_device*)>& f) {
    std::unique_ptr<udev_enumerate, UdevDeleter> e(udev_enumerate_new(u));
    if (!e) return;
    udev_enumerate_add_match_subsystem(e.get(), subsystem);
    udev_enumerate_scan_devices(e.get());
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(e.get())) {
        Device d(udev_device_new_from_syspath(u, udev_list_entry_get_name(entry)));
        if (!d) continue;
        if (devtype && Text(udev_device_get_devtype(d.get())) != devtype) continue;
        f(d.get());
    }
}

// The USB device (not interface) a device belongs to; not owned.
udev_device* UsbDeviceOf(udev_device* d) {
    if (Text(udev_device_get_devtype(d)) == "usb_device") return d;
    return udev_device_get_parent_with_subsystem_devtype(d, "usb", "usb_device");
}

std::string InstanceIdOf(udev_device* d) {
    udev_device* usb = UsbDeviceOf(d);
    const unsigned vid = static_cast<unsigned>(std::strtoul(Attr(usb, "idVendor").c_str(), nullptr, 16));
    const unsigned pid = static_cast<unsigned>(std::strtoul(Attr(usb, "idProduct").c_str(), nullptr, 16));
    char id[300];
    std::snprintf(id, sizeof id, "USB\\VID_%04X&PID_%04X\\%s", vid, pid, Text(udev_device_get_sysname(d)).c_str());
    return id;
}

bool IsRootHub(udev_device* usb) {
    return udev_device_get_parent_with_subsystem_devtype(usb, "usb", "usb_device") == nullptr;
}

// The host controller above a root hub, named as udev's path_id names it.
std::string ControllerPathOf(udev_device* usb) {
    udev_device* root = usb;
    while (udev_device* up = udev_device_get_parent_with_subsystem_devtype(root, "usb", "usb_device")) root = up;
    udev_device* controller = udev_device_get_parent(root);
    if (!controller) return "";
    const std::string subsystem = Text(udev_device_get_subsystem(controller));
    if (subsystem.empty() || subsystem == "usb") return "";
    return subsystem + "-" + Text(udev_device_get_sysname(controller));
}

HubFacts HubFactsOf(udev_device* hub) {
    HubFacts f;
    f.idPath = Text(udev_device_get_property_value(hub, "ID_PATH_WITH_USB_REVISION"));
    f.controllerPath = ControllerPathOf(hub);
    f.devpath = Attr(hub, "devpath");
    if (f.devpath.empty() || IsRootHub(hub)) f.devpath = "0";
    f.sysname = Text(udev_device_get_sysname(hub));
    f.usb3 = std::atoi(Attr(hub, "speed").c_str()) >= 5000;
    return f;
}

// The hub a USB device hangs off and its 1-based port there. False for root hubs
// and odd names.
bool HubPortOf(udev_device* usb, udev_device*& hub, unsigned& port) {
    hub = udev_device_get_parent_with_subsystem_devtype(usb, "usb", "usb_device");
    port = PortOfDevpath(Attr(usb, "devpath"));
    return hub && port > 0;
}

// "<hub's physical path>\PORT<n>": the socket, whatever is plugged into it and however often.
std::string LocationOf(udev_device* d) {
    udev_device* usb = UsbDeviceOf(d);
    udev_device* hub = nullptr;
    unsigned port = 0;
    if (!usb || !HubPortOf(usb, hub, port)) return "";
    return SocketLocation(HubIdentity(HubFactsOf(hub)), port);
}

int ComOfNodePath(const std::string& path) {
    return path.empty() ? 0 : ComNumberOfNode(path.substr(path.find_last_of('/') + 1));
}

// The COM number of the first serial node below the device; 0 when it has none (yet).
int ComOf(struct udev* u, udev_device* d) {
    std::unique_ptr<udev_enumerate, UdevDeleter> e(udev_enumerate_new(u));
    if (!e) return 0;
    udev_enumerate_add_match_parent(e.get(), d);
    udev_enumerate_add_match_subsystem(e.get(), "tty");
    udev_enumerate_scan_devices(e.get());
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(e.get())) {
        const std::string path = udev_list_entry_get_name(entry);
        if (const int n = ComNumberOfNode(path.substr(path.find_last_of('/') + 1)); n > 0) return n;
    }
    return 0;
}

// A phone's vendor interface that its engine opens through the USB node.
bool IsUsbDownload(udev_device* iface) {
    if (Text(udev_device_get_devtype(iface)) != "usb_interface") return false;
    udev_device* usb = UsbDeviceOf(iface);
    return IsUsbDownloadInterface(Attr(usb, "idVendor"), Attr(usb, "idProduct"), Attr(iface, "bInterfaceClass"),
                                  Text(udev_device_get_driver(iface)));
}

// Whether any interface of the USB device is one.
bool HasUsbDownload(struct udev* u, udev_device* usb) {
    bool found = false;
    const std::string devPath = Text(udev_device_get_syspath(usb));
    ForEach(u, "usb", "usb_interface", [&](udev_device* i) {
        udev_device* parent = udev_device_get_parent(i);
        if (parent && Text(udev_device_get_syspath(parent)) == devPath && IsUsbDownload(i)) found = true;
    });
    return found;
}

// "/dev/bus/usb/BBB/DDD", the node libusb opens.
std::string UsbNodeOf(udev_device* usb, const std::string& dev) {
    const int bus = std::atoi(Attr(usb, "busnum").c_str()), num = std::atoi(Attr(usb, "devnum").c_str());
    if (bus <= 0 || num <= 0) return "";
    char node[64];
    std::snprintf(node, sizeof node, "/bus/usb/%03d/%03d", bus, num);
    return dev + node;
}

// "<product> (COM<n>)" when a serial node hangs below the device; `usbCom` is the
// socket's number for a phone without one.
std::optional<std::string> FriendlyNameOfDevice(struct udev* u, udev_device* d, int usbCom = 0) {
    std::string product = Attr(UsbDeviceOf(d), "product");
    int com = ComOf(u, d);
    if (com == 0) com = usbCom;
    if (product.empty() && com == 0) return std::nullopt;
    if (com == 0) return product;
    return (product.empty() ? std::string("USB Serial Port") : product) + " (COM" + std::to_string(com) + ")";
}

}  // namespace

UdevBackend::UdevBackend(platform::SysPaths paths, std::map<std::string, std::string> aliases)
    : paths_(std::move(paths)), aliases_(std::move(aliases)), release_(KernelRelease()) {
    stopFd_.reset(::eventfd(0, EFD_CLOEXEC));
    if (stopFd_) watcher_ = std::thread([this] { Watch(); });
}

UdevBackend::~UdevBackend() {
    if (watcher_.joinable()) {
        const std::uint64_t one = 1;
        [[maybe_unused]] auto n = ::write(stopFd_.get(), &one, sizeof one);
        watcher_.join();
    }
}

std::string UdevBackend::DriverOf(const std::string& service) const {
    auto it = aliases_.find(service);
    return it == aliases_.end() ? service : it->second;
}

void UdevBackend::Watch() {
    Udev u(udev_new());
    if (!u) return;
    std::unique_ptr<udev_monitor, UdevDeleter> mon(udev_monitor_new_from_netlink(u.get(), "udev"));
    if (!mon) return;
    udev_monitor_filter_add_match_subsystem_devtype(mon.get(), "usb", nullptr);
    udev_monitor_filter_add_match_subsystem_devtype(mon.get(), "tty", nullptr);
    if (udev_monitor_enable_receiving(mon.get()) < 0) return;
    pollfd fds[2] = {{udev_monitor_get_fd(mon.get()), POLLIN, 0}, {stopFd_.get(), POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 2, -1) < 0) continue;
        if (fds[1].revents) return;
        if (fds[0].revents) {
            Device d(udev_monitor_receive_device(mon.get()));
            if (d) changes_.Notify();
        }
    }
}

std::vector<app::HubPortEntry> UdevBackend::EnumerateHubPorts() {
    std::vector<app::HubPortEntry> ports;
    Udev u(udev_new());
    if (!u) return ports;
    std::vector<std::pair<std::string, int>> hubs;
    ForEach(u.get(), "usb", "usb_device", [&](udev_device* d) {
        if (Attr(d, "bDeviceClass") != "09") return;
        if (IsUsb11RootHub(IsRootHub(d), Attr(d, "version"), Attr(d, "speed"))) return;
        const int n = std::atoi(Attr(d, "maxchild").c_str());
        if (n > 0) hubs.emplace_back(InstanceIdOf(d), n);
    });
    for (const auto& [id, n] : hubs)
        for (int p = 1; p <= n; ++p) {
            app::HubPortEntry e{};
            e.hubId = id;
            e.port = static_cast<std::uint32_t>(p);
            ports.push_back(e);
        }
    return ports;
}

std::vector<app::DeviceInfo> UdevBackend::EnumeratePreloaderDevices() {
    std::vector<app::DeviceInfo> found;
    Udev u(udev_new());
    if (!u) return found;
    ForEach(u.get(), "usb", "usb_device", [&](udev_device* d) {
        // The product string of a preloader is not the Windows driver's name, so
        // its ids count as well as the name; PID 2000 alone is any vendor's.
        const auto name = FriendlyNameOfDevice(u.get(), d);
        if (!name) return;
        const bool mtkPreloader = Attr(d, "idVendor") == "0e8d" && ClassOf(InstanceIdOf(d)) == PidClass::PRELOADER;
        if (name->find("PreLoader") == std::string::npos && !mtkPreloader) return;
        udev_device* hub = nullptr;
        unsigned port = 0;
        if (!HubPortOf(d, hub, port)) return;
        app::DeviceInfo info{};
        info.type = app::EventKind::MTK;
        info.friendlyName = *name;
        info.location = Text(udev_device_get_syspath(d));
        info.hubPort.hubId = InstanceIdOf(hub);
        info.hubPort.port = port;
        found.push_back(info);
    });
    return found;
}

bool UdevBackend::ServiceExists(const std::string& service) {
    // The USB device file system is always there for the phones it serves.
    return service == kUsbPhoneService || DriverAvailable(paths_, release_, DriverOf(service));
}

int UdevBackend::UsbComAt(const std::string& location) {
    if (location.empty()) return 0;
    std::lock_guard g(comsMutex_);
    if (auto it = usbComs_.find(location); it != usbComs_.end()) return it->second;
    const int n = UsbComNumber(location, [&](int com) {
        for (const auto& [other, held] : usbComs_)
            if (held == com) return true;
        struct stat st {};
        return ::stat((paths_.sys + "/class/tty/" + NodeOfComNumber(com)).c_str(), &st) == 0;
    });
    if (n > 0) usbComs_.emplace(location, n);
    return n;
}

bool UdevBackend::DriverLoaded(const std::string& driver) const {
    struct stat st {};
    return !driver.empty() && ::stat((paths_.sys + "/bus/usb/drivers/" + driver).c_str(), &st) == 0;
}

std::vector<UdevBackend::Interface> UdevBackend::InterfacesOf(const std::string& service) {
    std::vector<Interface> list;
    Udev u(udev_new());
    if (!u) return list;
    const std::string driver = DriverOf(service);
    const bool usbPhones = service == kUsbPhoneService;
    std::vector<Interface> all;
    std::vector<InterfaceFacts> facts;
    ForEach(u.get(), "usb", "usb_interface", [&](udev_device* d) {
        if (Text(udev_device_get_driver(d)) != driver && !(usbPhones && IsUsbDownload(d))) return;
        udev_device* usb = UsbDeviceOf(d);
        InterfaceFacts f;
        f.sysname = Text(udev_device_get_sysname(d));
        f.device = usb ? Text(udev_device_get_sysname(usb)) : f.sysname;
        const std::string cls = Attr(d, "bInterfaceClass");
        f.interfaceClass = cls.empty() ? -1 : static_cast<int>(std::strtol(cls.c_str(), nullptr, 16));
        f.hasSerialPort = ComOf(u.get(), d) > 0;
        facts.push_back(f);
        all.push_back({f.sysname, InstanceIdOf(d), LocationOf(d)});
    });
    // One entry per phone: never the data half of a CDC pair, nor a second interface.
    for (std::size_t i : PhoneInterfaces(facts)) list.push_back(all[i]);
    return list;
}

std::optional<std::vector<std::string>> UdevBackend::ServiceDevices(const std::string& service) {
    // A driver that is not loaded has never had a device: no list yet. Phones served
    // through their USB node need no driver.
    if (service != kUsbPhoneService && !DriverLoaded(DriverOf(service))) return std::nullopt;
    std::vector<std::string> ids;
    for (const auto& i : InterfacesOf(service)) ids.push_back(i.instanceId);
    return ids;
}

PortTable UdevBackend::BuildPortTable(const std::string& service) {
    PortTable table;
    for (const auto& i : InterfacesOf(service)) table.Add(i.location, i.instanceId);
    return table;
}

std::string UdevBackend::LocationOfUsbCom(int comNumber) {
    if (!IsUsbComNumber(comNumber)) return "";
    std::lock_guard g(comsMutex_);
    for (const auto& [where, n] : usbComs_)
        if (n == comNumber) return where;
    return "";
}

std::string UdevBackend::UsbNodeOfPort(int comNumber) {
    const std::string location = LocationOfUsbCom(comNumber);
    if (location.empty()) return "";
    Udev u(udev_new());
    std::string node;
    if (u)
        ForEach(u.get(), "usb", "usb_interface", [&](udev_device* d) {
            if (node.empty() && IsUsbDownload(d) && LocationOf(d) == location)
                node = UsbNodeOf(UsbDeviceOf(d), paths_.dev);
        });
    return node;
}

std::optional<PortDevice> UdevBackend::DeviceOfPort(int comNumber) {
    Udev u(udev_new());
    if (!u) return std::nullopt;
    if (const std::string location = LocationOfUsbCom(comNumber); !location.empty()) {
        std::optional<PortDevice> found;
        ForEach(u.get(), "usb", "usb_interface", [&](udev_device* d) {
            if (!found && IsUsbDownload(d) && LocationOf(d) == location) found = PortDevice{InstanceIdOf(d), location};
        });
        if (found) return found;
    }
    // A serial node: the interface it hangs below.
    const std::string node = NodeOfComNumber(comNumber);
    if (node.empty()) return std::nullopt;
    Device tty(udev_device_new_from_subsystem_sysname(u.get(), "tty", node.c_str()));
    udev_device* iface =
        tty ? udev_device_get_parent_with_subsystem_devtype(tty.get(), "usb", "usb_interface") : nullptr;
    if (!iface) return std::nullopt;
    return PortDevice{InstanceIdOf(iface), LocationOf(iface)};
}

std::optional<std::string> UdevBackend::FriendlyNameOf(const std::string& instanceId) {
    const auto cut = instanceId.find_last_of('\\');
    if (cut == std::string::npos) return std::nullopt;
    Udev u(udev_new());
    if (!u) return std::nullopt;
    Device d(udev_device_new_from_subsystem_sysname(u.get(), "usb", instanceId.substr(cut + 1).c_str()));
    std::lock_guard g(namesMutex_);
    // The sysfs name is the socket's; another device there now is not the one asked about.
    if (d && InstanceIdOf(d.get()) == instanceId) {
        const int usbCom = IsUsbDownload(d.get()) ? UsbComAt(LocationOf(d.get())) : 0;
        if (auto name = FriendlyNameOfDevice(u.get(), d.get(), usbCom)) return names_[instanceId] = *name;
        return std::nullopt;
    }
    // Gone: the name it had, so its removal can be told to the worker serving it.
    auto it = names_.find(instanceId);
    if (it == names_.end()) return std::nullopt;
    return it->second;
}

namespace {
bool IsPhone(udev_device* usb) {
    const std::string vid = Attr(usb, "idVendor"), pid = Attr(usb, "idProduct");
    return (vid == "0e8d" && (pid == "0003" || pid == "2000" || pid == "2001")) ||
           (vid == "1782" && (pid == "4d00" || pid == "4d03"));
}

// The first serial node below a USB device, as a /dev path; empty when none.
std::string NodeBelow(struct udev* u, udev_device* usb, const std::string& dev) {
    std::unique_ptr<udev_enumerate, UdevDeleter> e(udev_enumerate_new(u));
    if (!e) return "";
    udev_enumerate_add_match_parent(e.get(), usb);
    udev_enumerate_add_match_subsystem(e.get(), "tty");
    udev_enumerate_scan_devices(e.get());
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(e.get())) {
        const std::string path = udev_list_entry_get_name(entry);
        const std::string name = path.substr(path.find_last_of('/') + 1);
        if (ComNumberOfNode(name) > 0) return dev + "/" + name;
    }
    return "";
}
}  // namespace

std::vector<SocketRow> UdevBackend::Sockets() {
    std::vector<SocketRow> rows;
    Udev u(udev_new());
    if (!u) return rows;
    std::map<std::string, std::map<unsigned, udev_device*>> plugged;  // hub syspath -> port -> device
    std::vector<Device> keep;
    ForEach(u.get(), "usb", "usb_device", [&](udev_device* d) {
        keep.emplace_back(udev_device_ref(d));
        udev_device* hub = nullptr;
        unsigned port = 0;
        if (HubPortOf(d, hub, port)) plugged[Text(udev_device_get_syspath(hub))][port] = d;
    });
    for (const auto& d : keep) {
        udev_device* hub = d.get();
        if (Attr(hub, "bDeviceClass") != "09") continue;
        if (IsUsb11RootHub(IsRootHub(hub), Attr(hub, "version"), Attr(hub, "speed"))) continue;
        const int n = std::atoi(Attr(hub, "maxchild").c_str());
        const std::string identity = HubIdentity(HubFactsOf(hub));
        for (int p = 1; p <= n; ++p) {
            SocketRow row;
            row.location = SocketLocation(identity, static_cast<unsigned>(p));
            auto& ports = plugged[Text(udev_device_get_syspath(hub))];
            if (auto it = ports.find(static_cast<unsigned>(p)); it != ports.end()) {
                udev_device* dev = it->second;
                row.ids = Attr(dev, "idVendor") + ":" + Attr(dev, "idProduct");
                row.product = Attr(dev, "product");
                row.cls = Attr(dev, "bDeviceClass");
                // The driver of its first bound interface, and the interface class when
                // the device leaves the class to its interfaces.
                const std::string devPath = Text(udev_device_get_syspath(dev));
                ForEach(u.get(), "usb", "usb_interface", [&](udev_device* i) {
                    udev_device* parent = udev_device_get_parent(i);
                    if (!parent || Text(udev_device_get_syspath(parent)) != devPath) return;
                    if (row.driver.empty()) row.driver = Text(udev_device_get_driver(i));
                    if (row.cls == "00" || row.cls.empty()) row.cls = Attr(i, "bInterfaceClass");
                });
                if (Attr(dev, "bDeviceClass") != "09") row.node = NodeBelow(u.get(), dev, paths_.dev);  // not a hub's
                if (const int com = ComOfNodePath(row.node); com > 0) row.com = "COM" + std::to_string(com);
                if (row.node.empty() && HasUsbDownload(u.get(), dev)) {
                    row.node = UsbNodeOf(dev, paths_.dev);
                    if (const int com = UsbComAt(row.location); com > 0) row.com = "COM" + std::to_string(com);
                }
            }
            rows.push_back(row);
        }
    }
    return rows;
}

void UdevBackend::AddDeviceFacts(BenchFacts& facts) {
    Udev u(udev_new());
    if (!u) return;
    std::map<std::string, int> perController;
    ForEach(u.get(), "usb", "usb_device", [&](udev_device* d) {
        std::string controller = ControllerPathOf(d);
        if (controller.empty()) controller = "bus " + Attr(d, "busnum");
        ++perController[controller];
        // A hub's empty sockets are devices waiting to come.
        if (Attr(d, "bDeviceClass") == "09") perController[controller] += std::atoi(Attr(d, "maxchild").c_str());
        if (!IsPhone(d)) return;
        PhoneNode p;
        p.device = Text(udev_device_get_sysname(d));
        p.autosuspend = Attr(d, "power/control") == "auto";
        p.node = NodeBelow(u.get(), d, paths_.dev);
        if (p.node.empty() && HasUsbDownload(u.get(), d)) {
            // Its engine opens the USB node; the rule's ignore mark sits on the device.
            p.node = UsbNodeOf(d, paths_.dev);
            p.accessible = p.node.empty() || ::access(p.node.c_str(), R_OK | W_OK) == 0;
            p.modemManagerIgnores = Text(udev_device_get_property_value(d, "ID_MM_DEVICE_IGNORE")) == "1";
        } else if (!p.node.empty()) {
            p.accessible = ::access(p.node.c_str(), R_OK | W_OK) == 0;
            const std::string name = p.node.substr(p.node.find_last_of('/') + 1);
            Device tty(udev_device_new_from_subsystem_sysname(u.get(), "tty", name.c_str()));
            p.modemManagerIgnores =
                tty && Text(udev_device_get_property_value(tty.get(), "ID_MM_DEVICE_IGNORE")) == "1";
        }
        facts.phones.push_back(p);
    });
    for (const auto& [controller, n] : perController) facts.controllers.emplace_back(controller, n);
}

std::string UdevBackend::SerialNodeOf(int comNumber) {
    // A socket's own number: the USB node of the phone there.
    if (std::string usb = UsbNodeOfPort(comNumber); !usb.empty()) return usb;
    const std::string node = NodeOfComNumber(comNumber);
    return node.empty() ? "" : paths_.dev + "/" + node;
}

}  // namespace quorvel::devices
