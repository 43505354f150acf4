#include "engines/sprd/WireRecorder.h"

namespace quorvel::sprd {

WireRecorder::WireRecorder(std::unique_ptr<Transport> inner, std::FILE* out)
    : inner_(std::move(inner)), out_(out), start_(std::chrono::steady_clock::now()) {}

void WireRecorder::Line(const char* dir, std::span<const std::uint8_t> bytes) {
    static const char digits[] = "0123456789abcdef";
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_).count();
    line_ = "{\"rec\":\"sprd-wire\",\"at_ms\":" + std::to_string(ms) + ",\"dir\":\"" + dir + "\",\"hex\":\"";
    line_.reserve(line_.size() + bytes.size() * 2 + 4);
    for (std::uint8_t b : bytes) {
        line_ += digits[b >> 4];
        line_ += digits[b & 15];
    }
    line_ += "\"}\n";
    std::fwrite(line_.data(), 1, line_.size(), out_);
    std::fflush(out_);
}

bool WireRecorder::Write(std::span<const std::uint8_t> bytes) {
    Line("out", bytes);
    return inner_->Write(bytes);
}

long WireRecorder::Read(std::span<std::uint8_t> buffer, int timeoutMs) {
    const long n = inner_->Read(buffer, timeoutMs);
    if (n > 0) Line("in", buffer.first(static_cast<std::size_t>(n)));
    return n;
}

bool WireRecorder::Reopen(int timeoutMs, std::string& error) {
    return inner_->Reopen(timeoutMs, error);
}

}  // namespace quorvel::sprd
