#pragma once
#include <string>

#include "platform/SysPaths.h"

namespace quorvel::platform {

// Hardware address of the first physical network interface (one with a device
// behind it in sysfs), in interface-index order, that has a non-zero address, as "%02X-%02X-%02X-%02X-%02X-%02X";
// empty when there is none.
std::string FirstAdapterMac(const SysPaths& paths = {});

}  // namespace quorvel::platform
