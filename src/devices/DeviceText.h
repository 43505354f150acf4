#pragma once
// Pure text rules about devices: the class of an instance ID, the COM port of a
// friendly name, the mapping of serial nodes to COM numbers. No system access.

#include <optional>
#include <string>

namespace quorvel::devices {

enum PidClass : int { PID_BROM = 0, PID_PRELOADER = 1, PID_DA = 2, PID_OTHER = 3 };

// On the upper-cased ID; the later test wins.
PidClass ClassOf(const std::string& instanceId);

// The text between the first "(" and the first ")" of a friendly name (with one of
// them missing: up to the ")" or from the "(" on; with neither: the whole name).
std::string PortNameOf(const std::string& friendlyName);
// The number after the three letters of a port name; 0 when it is not numeric.
int PortNumberOf(const std::string& portName);
// Whether the friendly name ends in a COM port, "(COM<n>)" with n > 0.
bool NamesSerialPort(const std::string& friendlyName);

// Serial node name (no folder) <-> COM number: ttyACM<k> is COM k+1, ttyUSB<k> COM k+101.
int ComNumberOfNode(const std::string& nodeName);  // 0: not a serial node we map
std::string NodeOfComNumber(int comNumber);        // empty: none

// "#" removed and upper-cased, as an instance ID is looked up in a port table.
std::string LookupKey(const std::string& instanceId);

}  // namespace quorvel::devices
