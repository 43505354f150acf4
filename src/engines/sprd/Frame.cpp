#include "engines/sprd/Frame.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace quorvel::sprd {
namespace {

constexpr std::array<std::uint16_t, 256> MakeCrcTable() {
    std::array<std::uint16_t, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        std::uint16_t crc = static_cast<std::uint16_t>(i << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<std::uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
        table[i] = crc;
    }
    return table;
}
constexpr auto kCrcTable = MakeCrcTable();

// Ones'-complement sum of the big-endian words of the even part of `data`, folded to 16
// bits. The sum does not depend on byte order (swap at the end), so it runs over native
// 32-bit loads: an image chunk is summed at memory speed.
std::uint64_t WordSum(std::span<const std::uint8_t> data) {
    const std::size_t even = data.size() & ~std::size_t{1};
    const std::uint8_t* p = data.data();
    std::uint64_t acc = 0;
    std::size_t i = 0;
    for (; i + 8 <= even; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, p + i, 8);
        acc += (w & 0xFFFFFFFF) + (w >> 32);
    }
    for (; i < even; i += 2) {
        std::uint16_t w;
        std::memcpy(&w, p + i, 2);
        acc += w;
    }
    while (acc >> 16) acc = (acc & 0xFFFF) + (acc >> 16);
    if constexpr (std::endian::native == std::endian::little) acc = ((acc & 0xFF) << 8) | (acc >> 8);
    return acc;
}

std::uint16_t CrcUpdate(std::uint16_t crc, std::span<const std::uint8_t> data);

// Appends `data`, escaping 0x7E and 0x7D when asked: plain runs are copied whole.
void PutRun(std::span<const std::uint8_t> data, bool escape, std::vector<std::uint8_t>& out) {
    const std::uint8_t* p = data.data();
    const std::uint8_t* const end = p + data.size();
    if (!escape) {
        out.insert(out.end(), p, end);
        return;
    }
    while (p < end) {
        const std::uint8_t* q = p;
        while (q < end && *q != kFlag && *q != kEscape) ++q;
        out.insert(out.end(), p, q);
        if (q == end) break;
        out.push_back(kEscape);
        out.push_back(static_cast<std::uint8_t>(*q ^ 0x20));
        p = q + 1;
    }
}

std::uint16_t Fold(std::uint64_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum & 0xFFFF);
}

std::uint16_t Swap(std::uint16_t v) {
    return static_cast<std::uint16_t>((v << 8) | (v >> 8));
}

std::uint16_t CrcUpdate(std::uint16_t crc, std::span<const std::uint8_t> data) {
    for (std::uint8_t b : data) crc = static_cast<std::uint16_t>((crc << 8) ^ kCrcTable[((crc >> 8) ^ b) & 0xFF]);
    return crc;
}

}  // namespace

std::uint16_t Crc16Xmodem(std::span<const std::uint8_t> data) {
    return CrcUpdate(0, data);
}

std::uint16_t LoaderSum(std::span<const std::uint8_t> data) {
    std::uint64_t sum = WordSum(data);
    if (data.size() & 1) sum += std::uint32_t{data.back()} << 8;
    return Fold(sum);
}

bool LoaderSumMatches(std::span<const std::uint8_t> body, std::uint16_t value) {
    if ((body.size() & 1) == 0) return LoaderSum(body) == value;
    const std::uint64_t even = WordSum(body);
    const std::uint16_t high = Fold(even + (std::uint32_t{body.back()} << 8));
    const std::uint16_t low = Fold(even + body.back());
    return value == high || value == low || value == Swap(high) || value == Swap(low);
}

void EncodeFrame(std::uint16_t type, std::span<const std::uint8_t> payload, Check check, bool escape,
                 std::vector<std::uint8_t>& out) {
    const std::size_t len = payload.size() > kMaxPayload ? kMaxPayload : payload.size();
    const std::span<const std::uint8_t> data = payload.first(len);
    const std::uint8_t head[4] = {static_cast<std::uint8_t>(type >> 8), static_cast<std::uint8_t>(type),
                                  static_cast<std::uint8_t>(len >> 8), static_cast<std::uint8_t>(len)};
    // The check covers TYPE, LEN and PAYLOAD; computed in place, without a copy of the payload.
    std::uint16_t value;
    if (check == Check::LOADER_SUM) {
        std::uint64_t sum = WordSum(head) + WordSum(data);
        if (len & 1) sum += std::uint32_t{data.back()} << 8;
        value = Fold(sum);
    } else {
        value = CrcUpdate(CrcUpdate(0, head), data);
    }
    const std::uint8_t tail[2] = {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
    out.reserve(out.size() + len + 8 + (escape ? len / 64 + 8 : 0));
    out.push_back(kFlag);
    PutRun(head, escape, out);
    PutRun(data, escape, out);
    PutRun(tail, escape, out);
    out.push_back(kFlag);
}

std::vector<std::uint8_t> EncodeFrame(std::uint16_t type, std::span<const std::uint8_t> payload, Check check,
                                      bool escape) {
    std::vector<std::uint8_t> out;
    EncodeFrame(type, payload, check, escape, out);
    return out;
}

const char* DecodedKindName(Decoded::Kind kind) {
    switch (kind) {
        case Decoded::FRAME: return "frame";
        case Decoded::BAD_CHECK: return "bad check value";
        case Decoded::BAD_ESCAPE: return "bad escape";
        case Decoded::BAD_END: return "frame not closed where its length ends";
        case Decoded::GARBAGE: return "bytes outside a frame";
    }
    return "?";
}

void FrameDecoder::Feed(std::span<const std::uint8_t> bytes) {
    const std::uint8_t* p = bytes.data();
    const std::uint8_t* const end = p + bytes.size();
    while (p < end) {
        // Image data is nearly all plain payload bytes: take a run of them at once.
        if (state_ == State::PAYLOAD && !pendingEscape_ && need_ > 1) {
            const std::uint8_t* stop = p + std::min<std::size_t>(need_ - 1, static_cast<std::size_t>(end - p));
            const std::uint8_t* q = p;
            if (escaping_) {
                while (q < stop && *q != kFlag && *q != kEscape) ++q;
            } else {
                q = stop;
            }
            body_.insert(body_.end(), p, q);
            need_ -= static_cast<std::size_t>(q - p);
            p = q;
            if (p == end) break;
        }
        Step(*p++);
    }
    if (state_ == State::IDLE) FlushGarbage();
}

std::optional<Decoded> FrameDecoder::Next() {
    if (readyHead_ >= ready_.size()) {
        ready_.clear();
        readyHead_ = 0;
        return std::nullopt;
    }
    return std::move(ready_[readyHead_++]);
}

void FrameDecoder::Reset() {
    state_ = State::IDLE;
    pendingEscape_ = false;
    body_.clear();
    need_ = 0;
    garbage_ = 0;
    ready_.clear();
    readyHead_ = 0;
}

void FrameDecoder::Emit(Decoded d) {
    ready_.push_back(std::move(d));
}

void FrameDecoder::FlushGarbage() {
    if (garbage_ == 0) return;
    Decoded d;
    d.kind = Decoded::GARBAGE;
    d.skipped = garbage_;
    garbage_ = 0;
    Emit(std::move(d));
}

void FrameDecoder::Step(std::uint8_t byte) {
    if (pendingEscape_) {
        pendingEscape_ = false;
        if (byte == 0x5E || byte == 0x5D) {
            Take(static_cast<std::uint8_t>(byte ^ 0x20));
            return;
        }
        Emit(Decoded{Decoded::BAD_ESCAPE, {}, check_, 0});
        state_ = byte == kFlag ? State::OPEN : State::IDLE;
        return;
    }
    switch (state_) {
        case State::IDLE:
            if (byte == kFlag) {
                FlushGarbage();
                state_ = State::OPEN;
            } else {
                ++garbage_;
            }
            return;
        case State::OPEN:
            if (byte == kFlag) return;  // a lone flag before a frame, or check baud
            body_.clear();
            state_ = State::HEADER;
            need_ = 4;
            if (escaping_ && byte == kEscape) {
                pendingEscape_ = true;
                return;
            }
            Take(byte);
            return;
        case State::HEADER:
        case State::PAYLOAD:
        case State::CHECK:
            if (escaping_ && byte == kFlag) {  // the frame was cut short; this flag opens the next
                Emit(Decoded{Decoded::BAD_END, {}, check_, 0});
                state_ = State::OPEN;
                return;
            }
            if (escaping_ && byte == kEscape) {
                pendingEscape_ = true;
                return;
            }
            Take(byte);
            return;
        case State::END:
            if (byte == kFlag) {
                Finish();
            } else {
                Emit(Decoded{Decoded::BAD_END, {}, check_, 0});
            }
            state_ = State::IDLE;
            return;
    }
}

void FrameDecoder::Take(std::uint8_t byte) {
    body_.push_back(byte);
    if (--need_ > 0) return;
    switch (state_) {
        case State::HEADER: {
            const std::size_t len = (std::size_t{body_[2]} << 8) | body_[3];
            body_.reserve(len + 6);
            state_ = len ? State::PAYLOAD : State::CHECK;
            need_ = len ? len : 2;
            return;
        }
        case State::PAYLOAD:
            state_ = State::CHECK;
            need_ = 2;
            return;
        case State::CHECK: state_ = State::END; return;
        default: return;
    }
}

void FrameDecoder::Finish() {
    const std::size_t n = body_.size();
    const std::span<const std::uint8_t> covered(body_.data(), n - 2);
    const std::uint16_t value = static_cast<std::uint16_t>((body_[n - 2] << 8) | body_[n - 1]);
    Decoded d;
    d.frame.type = static_cast<std::uint16_t>((body_[0] << 8) | body_[1]);
    d.frame.payload.assign(body_.begin() + 4, body_.end() - 2);
    const bool crc = check_ != Check::LOADER_SUM && Crc16Xmodem(covered) == value;
    const bool sum = !crc && check_ != Check::BOOT_ROM_CRC && LoaderSumMatches(covered, value);
    d.kind = crc || sum ? Decoded::FRAME : Decoded::BAD_CHECK;
    d.matched = crc ? Check::BOOT_ROM_CRC : Check::LOADER_SUM;
    Emit(std::move(d));
}

}  // namespace quorvel::sprd
