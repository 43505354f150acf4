#pragma once
#include <string>

#include "platform/SysPaths.h"

namespace quorvel::platform {

// Hardware address of the first network interface, in interface-index order, that
// has a non-zero address (loopback excluded), as "%02X-%02X-%02X-%02X-%02X-%02X";
// empty when there is none.
std::string FirstAdapterMac(const SysPaths& paths = {});

}  // namespace quorvel::platform
