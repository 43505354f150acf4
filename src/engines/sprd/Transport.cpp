#include "engines/sprd/Transport.h"

#include "engines/sprd/FdTransport.h"
#include "engines/sprd/UsbTransport.h"

namespace quorvel::sprd {

std::unique_ptr<Transport> OpenTransport(const std::string& link, const std::string& device,
                                         const std::string& location, int waitMs, std::string& error) {
    if (link.rfind("unix:", 0) == 0 || link.rfind("pty:", 0) == 0) {
        const bool unixSocket = link[0] == 'u';
        auto t = std::make_unique<FdTransport>(unixSocket ? FdTransport::UNIX : FdTransport::PTY,
                                               link.substr(unixSocket ? 5 : 4));
        if (!t->Open(waitMs, error)) return nullptr;
        return t;
    }
    if (link != "usb") {
        error = "unknown transport " + link + " (usb, unix:PATH or pty:PATH)";
        return nullptr;
    }
    const std::string name = SysfsNameOf(device, location);
    if (name.empty()) {
        error = "no phone named: --device (the station's {device}) or --location must name its USB socket";
        return nullptr;
    }
    auto t = std::make_unique<UsbTransport>(name);
    if (!t->Open(waitMs, error)) return nullptr;
    return t;
}

}  // namespace quorvel::sprd
