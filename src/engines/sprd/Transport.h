#pragma once
// How the engine reaches one phone: a byte stream that can go away (unplug,
// re-enumeration) and come back on the same socket only.
// Threads: one session thread uses a transport.

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace quorvel::sprd {

class Transport {
public:
    virtual ~Transport() = default;
    // Writes all of `bytes` as one transfer; false when the phone is gone.
    virtual bool Write(std::span<const std::uint8_t> bytes) = 0;
    // What has come, waiting at most `timeoutMs`: the byte count, 0 on time-out, -1 when
    // the phone is gone.
    virtual long Read(std::span<std::uint8_t> buffer, int timeoutMs) = 0;
    // Waits up to `timeoutMs` for the phone to come back on the same socket after it went.
    virtual bool Reopen(int timeoutMs, std::string& error) = 0;
    // "unix:/run/x.sock": for the log.
    virtual std::string Name() const = 0;
};

// "unix:PATH", "pty:PATH" or "usb" (with the USB device's sysfs name or socket location).
// Null with `error` when the phone cannot be opened.
std::unique_ptr<Transport> OpenTransport(const std::string& link, const std::string& device,
                                         const std::string& location, int waitMs, std::string& error);

}  // namespace quorvel::sprd
