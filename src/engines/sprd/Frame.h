#pragma once
// The SPRD download protocol's frames: 0x7E | TYPE u16 BE | LEN u16 BE | PAYLOAD | CHECK u16 BE | 0x7E,
// with 0x7E and 0x7D escaped until transcoding is switched off. Shared by the engine
// (quorvel-sprd-flash) and the simulated phone (quorvel-sprd-phone).
// Threads: plain values; a FrameDecoder belongs to the one thread that feeds it.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quorvel::sprd {

inline constexpr std::uint8_t kFlag = 0x7E;
inline constexpr std::uint8_t kEscape = 0x7D;
inline constexpr std::size_t kMaxPayload = 0xFFFF;

// Which check value frames carry: the boot ROM's CRC-16/XMODEM, or the loaders'
// ones'-complement sum. Detect accepts either (a host that does not know the stage).
enum class Check { BOOT_ROM_CRC, LOADER_SUM, DETECT };

// CRC-16/XMODEM: polynomial 0x1021, initial 0, no reflection, no final XOR.
std::uint16_t Crc16Xmodem(std::span<const std::uint8_t> data);

// The loaders' check: 16-bit big-endian words added with end-around carry, complemented.
// An odd last byte is the high byte of a zero-padded word (the form this station sends).
std::uint16_t LoaderSum(std::span<const std::uint8_t> data);

// Whether `value` is a loader check of `body` in any form a real phone may use: for an odd
// body sources disagree on the last byte (high or low half of its word) and on the byte
// order of the result, so all four are accepted there; an even body has one form.
bool LoaderSumMatches(std::span<const std::uint8_t> body, std::uint16_t value);

struct Frame {
    std::uint16_t type = 0;
    std::vector<std::uint8_t> payload;
};

// Appends one whole frame (flags included) to `out`. `escape` false once transcoding is off.
// The payload must not exceed kMaxPayload.
void EncodeFrame(std::uint16_t type, std::span<const std::uint8_t> payload, Check check, bool escape,
                 std::vector<std::uint8_t>& out);
std::vector<std::uint8_t> EncodeFrame(std::uint16_t type, std::span<const std::uint8_t> payload, Check check,
                                      bool escape);

// What the decoder found. Errors resynchronise at the next flag; the bytes of the bad
// frame are dropped.
struct Decoded {
    enum Kind {
        FRAME,       // a whole frame with a matching check
        BAD_CHECK,   // the check value did not match
        BAD_ESCAPE,  // 0x7D followed by a byte other than 0x5E or 0x5D
        BAD_END,     // LEN bytes later there was no closing flag
        GARBAGE,     // bytes outside any frame (not a flag)
    };
    Kind kind = FRAME;
    Frame frame;                          // FRAME (and BAD_CHECK: what was read)
    Check matched = Check::BOOT_ROM_CRC;  // FRAME: the check that matched
    std::size_t skipped = 0;              // GARBAGE: how many bytes
};

const char* DecodedKindName(Decoded::Kind kind);

// Streaming decoder: feed bytes as they come, take what they made.
class FrameDecoder {
public:
    explicit FrameDecoder(Check check = Check::BOOT_ROM_CRC) : check_(check) {}

    void SetCheck(Check check) { check_ = check; }
    // Escaping both ways until DISABLE_TRANSCODE is acknowledged.
    void SetEscaping(bool on) { escaping_ = on; }
    bool Escaping() const { return escaping_; }

    void Feed(std::span<const std::uint8_t> bytes);
    // The next result in arrival order, or nothing until more bytes come.
    std::optional<Decoded> Next();
    // Drops a partly read frame and everything not yet taken.
    void Reset();
    // True when the last bytes were flags with no frame after them yet: check baud, or the
    // opening flag of a frame whose rest is still on its way.
    bool AtFlag() const { return state_ == State::OPEN; }

private:
    enum class State { IDLE, OPEN, HEADER, PAYLOAD, CHECK, END };
    void Step(std::uint8_t byte);
    void Take(std::uint8_t byte);
    void Finish();
    void Emit(Decoded d);
    void FlushGarbage();

    Check check_;
    bool escaping_ = true;
    State state_ = State::IDLE;
    bool pendingEscape_ = false;
    std::vector<std::uint8_t> body_;  // TYPE, LEN, PAYLOAD, CHECK as read (unescaped)
    std::size_t need_ = 0;            // bytes still wanted in the current state
    std::size_t garbage_ = 0;
    std::vector<Decoded> ready_;
    std::size_t readyHead_ = 0;
};

}  // namespace quorvel::sprd
