#pragma once
// Pure rules about USB trees as the kernel presents them: which interface of a phone
// is the phone, which hubs count, and how a socket is named so that the name survives
// reboots and added controllers. No system access: the backends gather the facts.

#include <cstddef>
#include <string>
#include <vector>

namespace quorvel::devices {

// One USB interface bound to a driver.
struct InterfaceFacts {
    std::string sysname;  // "1-1.4:1.0"
    std::string device;   // its USB device's sysfs name, "1-1.4"
    int interfaceClass = -1;
    bool hasSerialPort = false;
};

// CDC data: the second half of a CDC-ACM pair; it never owns the serial port.
inline constexpr int kCdcDataClass = 0x0A;

// The indexes of the interfaces that stand for a phone, one per USB device: the one
// owning a serial port, else the lowest-numbered interface that is not CDC data.
// Ordered by sysfs name.
std::vector<std::size_t> PhoneInterfaces(const std::vector<InterfaceFacts>& interfaces);

// The driver service whose list also holds the phones served through their USB node.
inline constexpr const char* kUsbPhoneService = "sprdvcom";
// A phone in serial download mode that no serial driver serves: its vendor-class
// interface (0xFF) of 1782:4d00 (or 4d03), unbound or claimed through the USB device
// file system by an engine ("usbfs"). The engine opens the USB device itself.
// `vid`, `pid` as sysfs writes them ("1782"), `cls` the interface class text ("ff").
bool IsUsbDownloadInterface(const std::string& vid, const std::string& pid, const std::string& cls,
                            const std::string& driver);

// A hub as the location rules see it.
struct HubFacts {
    // udev's ID_PATH_WITH_USB_REVISION; may be empty. Plain ID_PATH is not enough: the
    // 2.0 and 3.0 halves of one hub share it.
    std::string idPath;
    std::string controllerPath;  // the host controller's path, e.g. "pci-0000:00:14.0"; may be empty
    std::string devpath;         // the hub's devpath ("0" for a root hub, "1.4" below it)
    std::string sysname;         // "usb1", "1-1": a last resort, it holds the bus number
    bool usb3 = false;           // the hub sits on a SuperSpeed bus
};

// The hub's part of a location: its physical path, never its bus number, so a binding
// survives reboots and controllers that register in another order.
std::string HubIdentity(const HubFacts& hub);
// "<hub>\PORT<n>".
std::string SocketLocation(const std::string& hubIdentity, unsigned port);

// A USB 1.1 root hub (its sockets are listed by the 2.0 root hub of the same ports).
// `version` is the bcdUSB text (" 1.10"), `speed` the Mbit/s text ("12").
bool IsUsb11RootHub(bool rootHub, const std::string& version, const std::string& speed);

// The 1-based port of a USB device on its parent hub, from its devpath ("1.4" -> 4);
// 0 for a root hub or an odd name.
unsigned PortOfDevpath(const std::string& devpath);

}  // namespace quorvel::devices
