#pragma once
// The phone over USB (libusb): exactly the device on one socket, found by its sysfs name
// ("1-1.4"), never the first matching phone. Endpoints come from the descriptors.
// Threads: one session thread.

#include <string>

#include "engines/sprd/Transport.h"

struct libusb_context;
struct libusb_device_handle;

namespace quorvel::sprd {

// "1-1.4" from the station's device instance ID ("USB\VID_1782&PID_4D00\1-1.4:1.0") or, when
// that is empty, from a socket location ("pci-0000:00:14.0-usbv2-0:1\PORT4", looked up under
// `sysRoot`/bus/usb/devices). Empty when neither names a socket.
std::string SysfsNameOf(const std::string& device, const std::string& location, const std::string& sysRoot = "/sys");

class UsbTransport : public Transport {
public:
    explicit UsbTransport(std::string sysfsName) : sysfsName_(std::move(sysfsName)) {}
    ~UsbTransport() override;
    UsbTransport(const UsbTransport&) = delete;
    UsbTransport& operator=(const UsbTransport&) = delete;

    // Waits up to `waitMs` for the device to be there, then opens it.
    bool Open(int waitMs, std::string& error);

    bool Write(std::span<const std::uint8_t> bytes) override;
    long Read(std::span<std::uint8_t> buffer, int timeoutMs) override;
    bool Reopen(int timeoutMs, std::string& error) override;
    std::string Name() const override { return "usb:" + sysfsName_; }

private:
    enum class Try { OPENED, ABSENT, FAILED };
    Try TryOpen(std::string& error);
    void Close();

    std::string sysfsName_;
    libusb_context* context_ = nullptr;
    libusb_device_handle* handle_ = nullptr;
    int interface_ = -1;
    unsigned char in_ = 0, out_ = 0;
    int packet_ = 512;
};

}  // namespace quorvel::sprd
