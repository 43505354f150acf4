// INI reading and editing on arbitrary bytes: no crash, and a write is always read back.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/ProfileIni.h"

using quorvel::platform::ProfileIni;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string contents(reinterpret_cast<const char*>(data), size);
    ProfileIni::ReadStringFrom(contents, "COMMON", "FilePath", "", 260);
    ProfileIni::ReadIntFrom(contents, "total", "NUM", 0);
    // Section and key names without line breaks or brackets, as the station writes them.
    const std::string edited = ProfileIni::Apply(contents, "USBPORTINFO", "Index3", "hub\\PORT4");
    const auto [found, value] = ProfileIni::Lookup(edited, "USBPORTINFO", "Index3");
    if (!found || value != "hub\\PORT4") std::abort();
    return 0;
}
