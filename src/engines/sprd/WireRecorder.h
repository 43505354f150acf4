#pragma once
// A transport that also writes every transfer, with its time, as one JSON line
// {"rec":"sprd-wire","at_ms":N,"dir":"out"|"in","hex":"..."}: a recorded session that the
// simulated phone can play back. Threads: the session's.

#include <chrono>
#include <cstdio>
#include <memory>

#include "engines/sprd/Transport.h"

namespace quorvel::sprd {

class WireRecorder : public Transport {
public:
    WireRecorder(std::unique_ptr<Transport> inner, std::FILE* out);

    bool Write(std::span<const std::uint8_t> bytes) override;
    long Read(std::span<std::uint8_t> buffer, int timeoutMs) override;
    bool Reopen(int timeoutMs, std::string& error) override;
    std::string Name() const override { return inner_->Name(); }

private:
    void Line(const char* dir, std::span<const std::uint8_t> bytes);

    std::unique_ptr<Transport> inner_;
    std::FILE* out_;
    std::chrono::steady_clock::time_point start_;
    std::string line_;
};

}  // namespace quorvel::sprd
