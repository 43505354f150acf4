#pragma once
// Pure text rules about devices: the class of an instance ID, the COM port of a
// friendly name, the mapping of serial nodes to COM numbers. No system access.

#include <functional>
#include <optional>
#include <string>

namespace quorvel::devices {

enum class PidClass { BROM, PRELOADER, DA, OTHER };

// On the upper-cased ID; the later test wins.
PidClass ClassOf(const std::string& instanceId);

// The text between the first "(" and the first ")" of a friendly name (with one of
// them missing: up to the ")" or from the "(" on; with neither: the whole name).
std::string PortNameOf(const std::string& friendlyName);
// The number after the three letters of a port name; 0 when it is not numeric.
int PortNumberOf(const std::string& portName);
// Whether the friendly name ends in a COM port, "(COM<n>)" with n > 0.
bool NamesSerialPort(const std::string& friendlyName);
// n of a friendly name ending in "(COM<n>)", n in 1..256 as ExtractComNumber reads it; 0 otherwise.
int ComNumberOfName(const std::string& friendlyName);
// "(COM<n>)", as a friendly name ends in it and a COM name holds it.
std::string ComTag(unsigned long comNumber);

// Serial node name (no folder) <-> COM number, COM 1..256 (the most a worker reads):
// ttyACM<k> is COM k+1 (k < 100), ttyUSB<k> COM k+101 (k < 156).
inline constexpr int kComLast = 256;
int ComNumberOfNode(const std::string& nodeName);  // 0: not a serial node we map
std::string NodeOfComNumber(int comNumber);        // empty: none

// Phones served through their USB node (a vendor interface, no serial driver) have no
// serial node, yet the SPRD worker reads the port from the friendly name and engine
// messages are keyed by it. Their sockets get COM numbers of their own at the top of the
// range, COM 201..256 (ttyUSB100..155, which a bench never reaches): first the one the
// location's hash names, so a socket keeps its number across re-plugging and restarts,
// then downwards (wrapping) past every number `taken` (a serial node in use, another
// socket's). 0 when the whole range is taken.
inline constexpr int kUsbComFirst = 201;
inline constexpr int kUsbComLast = 256;
int UsbComNumber(const std::string& location, const std::function<bool(int)>& taken);
inline bool IsUsbComNumber(int n) {
    return n >= kUsbComFirst && n <= kUsbComLast;
}

// A USB device node ("/dev/bus/usb/001/007"), which a backend gives as the node of such a COM number.
bool IsUsbNode(const std::string& node);

// "#" removed and upper-cased, as an instance ID is looked up in a port table.
std::string LookupKey(const std::string& instanceId);

}  // namespace quorvel::devices
