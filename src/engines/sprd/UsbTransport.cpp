#include "engines/sprd/UsbTransport.h"

#include <libusb.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

namespace quorvel::sprd {
namespace {

std::string Node(libusb_device* d) {
    char text[32];
    std::snprintf(text, sizeof text, "/dev/bus/usb/%03u/%03u", libusb_get_bus_number(d), libusb_get_device_address(d));
    return text;
}

std::string SysfsName(libusb_device* d) {
    std::uint8_t ports[8];
    const int n = libusb_get_port_numbers(d, ports, sizeof ports);
    if (n <= 0) return "";
    std::string name = std::to_string(libusb_get_bus_number(d)) + "-";
    for (int i = 0; i < n; ++i) name += (i ? "." : "") + std::to_string(ports[i]);
    return name;
}

long long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

std::string SysfsNameOf(const std::string& device, const std::string& location, const std::string& sysRoot) {
    if (!device.empty()) {
        std::string name = device.substr(device.find_last_of('\\') + 1);
        return name.substr(0, name.find(':'));
    }
    const std::size_t cut = location.rfind("\\PORT");
    if (cut == std::string::npos) return "";
    const std::string hub = location.substr(0, cut);
    const std::string port = location.substr(cut + 5);
    if (port.empty() || port.find_first_not_of("0123456789") != std::string::npos) return "";
    if (hub.rfind("usb", 0) == 0) return hub.substr(3) + "-" + port;  // a root hub by its sysfs name
    if (hub.find('-') != std::string::npos && hub.rfind("pci-", 0) != 0 && hub.rfind("platform-", 0) != 0)
        return hub + "." + port;  // a hub by its sysfs name ("1-1")
    // A physical path: the controller's, then the hub's devpath. Find the controller's bus.
    const bool usb3 = hub.find("-usbv3") != std::string::npos;
    const std::size_t v = hub.find(usb3 ? "-usbv3" : "-usbv2");
    if (v == std::string::npos) return "";
    const std::string controller = hub.substr(hub.find('-') + 1, v - hub.find('-') - 1);
    const std::size_t colon = hub.find("-0:", v);
    const std::string devpath = colon == std::string::npos ? "" : hub.substr(colon + 3);
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(sysRoot + "/bus/usb/devices", ec)) {
        const std::string name = e.path().filename().string();
        if (name.rfind("usb", 0) != 0) continue;
        const std::string target = std::filesystem::canonical(e.path(), ec).string();
        if (ec || target.find("/" + controller + "/") == std::string::npos) continue;
        std::string speed;
        if (std::FILE* f = std::fopen((e.path() / "speed").c_str(), "r")) {
            char buf[16] = {};
            if (std::fgets(buf, sizeof buf, f)) speed = buf;
            std::fclose(f);
        }
        const bool super = speed.rfind("5000", 0) == 0 || speed.rfind("10000", 0) == 0 || speed.rfind("20000", 0) == 0;
        if (super != usb3) continue;
        return name.substr(3) + "-" + (devpath.empty() ? port : devpath + "." + port);
    }
    return "";
}

UsbTransport::~UsbTransport() {
    Close();
    if (context_) libusb_exit(context_);
}

void UsbTransport::Close() {
    if (!handle_) return;
    if (interface_ >= 0) libusb_release_interface(handle_, interface_);
    libusb_close(handle_);
    handle_ = nullptr;
    interface_ = -1;
}

UsbTransport::Try UsbTransport::TryOpen(std::string& error) {
    Close();
    if (!context_ && libusb_init(&context_) != 0) {
        context_ = nullptr;
        error = "cannot start libusb";
        return Try::FAILED;
    }
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(context_, &list);
    libusb_device* found = nullptr;
    for (ssize_t i = 0; i < count; ++i)
        if (SysfsName(list[i]) == sysfsName_) found = list[i];
    Try result = Try::ABSENT;
    error = "no USB device on socket " + sysfsName_;
    if (found) {
        const std::string node = Node(found);
        int rc = libusb_open(found, &handle_);
        if (rc == LIBUSB_ERROR_ACCESS) {
            error = "no permission to open " + node +
                    ": install the package's udev rule and add the operator to the group quorvel (then log in again)";
            result = Try::FAILED;
        } else if (rc != 0) {
            error = "cannot open " + node + ": " + libusb_strerror(static_cast<libusb_error>(rc));
            result = Try::FAILED;
        } else {
            result = Try::FAILED;
            libusb_config_descriptor* config = nullptr;
            if (libusb_get_active_config_descriptor(found, &config) == 0) {
                // The vendor interface with one bulk IN and one bulk OUT endpoint.
                for (int i = 0; i < config->bNumInterfaces && interface_ < 0; ++i) {
                    const libusb_interface_descriptor& alt = config->interface[i].altsetting[0];
                    unsigned char in = 0, out = 0;
                    int packet = 512;
                    for (int e = 0; e < alt.bNumEndpoints; ++e) {
                        const auto& ep = alt.endpoint[e];
                        if ((ep.bmAttributes & 3) != LIBUSB_TRANSFER_TYPE_BULK) continue;
                        if (ep.bEndpointAddress & LIBUSB_ENDPOINT_IN) {
                            in = ep.bEndpointAddress;
                        } else {
                            out = ep.bEndpointAddress;
                            packet = ep.wMaxPacketSize ? ep.wMaxPacketSize : 512;
                        }
                    }
                    if (in && out) {
                        interface_ = alt.bInterfaceNumber;
                        in_ = in;
                        out_ = out;
                        packet_ = packet;
                    }
                }
                libusb_free_config_descriptor(config);
            }
            if (interface_ < 0) {
                error = node + " has no interface with bulk IN and OUT endpoints (not a phone in download mode?)";
            } else {
                libusb_set_auto_detach_kernel_driver(handle_, 1);
                rc = libusb_claim_interface(handle_, interface_);
                if (rc == LIBUSB_ERROR_BUSY) {
                    error = node + " is busy: another program holds the phone (is a second engine running for it?)";
                    interface_ = -1;
                } else if (rc == LIBUSB_ERROR_ACCESS) {
                    error = "no permission to claim " + node +
                            ": install the package's udev rule and add the operator to the group quorvel";
                    interface_ = -1;
                } else if (rc != 0) {
                    error = "cannot claim " + node + ": " + libusb_strerror(static_cast<libusb_error>(rc));
                    interface_ = -1;
                } else {
                    // Smartphones answer only after this class request.
                    libusb_control_transfer(handle_, 0x21, 0x22, 0x0601, 0, nullptr, 0, 1000);
                    result = Try::OPENED;
                }
            }
            if (result != Try::OPENED) Close();
        }
    }
    if (list) libusb_free_device_list(list, 1);
    return result;
}

bool UsbTransport::Open(int waitMs, std::string& error) {
    const long long deadline = NowMs() + waitMs;
    for (;;) {
        const Try t = TryOpen(error);
        if (t == Try::OPENED) return true;
        if (t == Try::FAILED || NowMs() >= deadline) return false;
        // Re-enumeration: the new device shows up on the same socket shortly.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

bool UsbTransport::Reopen(int timeoutMs, std::string& error) {
    return Open(timeoutMs, error);
}

bool UsbTransport::Write(std::span<const std::uint8_t> bytes) {
    if (!handle_) return false;
    std::size_t done = 0;
    while (done < bytes.size()) {
        int sent = 0;
        const int rc = libusb_bulk_transfer(handle_, out_, const_cast<std::uint8_t*>(bytes.data() + done),
                                            static_cast<int>(bytes.size() - done), &sent, 15000);
        if (rc != 0 && !(rc == LIBUSB_ERROR_TIMEOUT && sent > 0)) {
            Close();
            return false;
        }
        done += static_cast<std::size_t>(sent);
    }
    if (bytes.size() % static_cast<std::size_t>(packet_) == 0) {
        int sent = 0;  // some chips wait for the end of a transfer that fills its last packet
        if (libusb_bulk_transfer(handle_, out_, nullptr, 0, &sent, 1000) != 0) {
            Close();
            return false;
        }
    }
    return true;
}

long UsbTransport::Read(std::span<std::uint8_t> buffer, int timeoutMs) {
    if (!handle_) return -1;
    int got = 0;
    const int rc = libusb_bulk_transfer(handle_, in_, buffer.data(), static_cast<int>(buffer.size()), &got,
                                        timeoutMs > 0 ? static_cast<unsigned>(timeoutMs) : 1);
    if (rc == 0 || (rc == LIBUSB_ERROR_TIMEOUT && got > 0)) return got;
    if (rc == LIBUSB_ERROR_TIMEOUT) return 0;
    Close();  // gone: unplugged or re-enumerating
    return -1;
}

}  // namespace quorvel::sprd
