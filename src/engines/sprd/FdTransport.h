#pragma once
// The transports over a file descriptor: a Unix stream socket that a simulated phone
// listens on, and a serial line or pseudo-terminal (115200 8N1, raw).
// Threads: one session thread.

#include <string>

#include "engines/sprd/Transport.h"
#include "platform/UniqueFd.h"

namespace quorvel::sprd {

class FdTransport : public Transport {
public:
    enum Kind { UNIX, PTY };
    FdTransport(Kind kind, std::string path) : kind_(kind), path_(std::move(path)) {}
    ~FdTransport() override;
    FdTransport(const FdTransport&) = delete;
    FdTransport& operator=(const FdTransport&) = delete;

    // Connects, retrying until `waitMs` has passed (the phone may not be listening yet).
    bool Open(int waitMs, std::string& error);

    bool Write(std::span<const std::uint8_t> bytes) override;
    long Read(std::span<std::uint8_t> buffer, int timeoutMs) override;
    bool Reopen(int timeoutMs, std::string& error) override;
    std::string Name() const override { return (kind_ == UNIX ? "unix:" : "pty:") + path_; }

private:
    bool TryOpen(std::string& error);
    void Close();

    Kind kind_;
    std::string path_;
    platform::UniqueFd fd_;
};

}  // namespace quorvel::sprd
