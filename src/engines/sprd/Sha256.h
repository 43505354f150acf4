#pragma once
// SHA-256, streamed: the simulated phone hashes what it is sent without keeping it.
// Threads: a plain value owned by one thread.

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace quorvel::sprd {

class Sha256 {
public:
    Sha256() { Reset(); }
    void Reset();
    void Update(std::span<const std::uint8_t> data);
    std::array<std::uint8_t, 32> Digest() const;  // of everything so far; the state stays usable
    std::string Hex() const;

    static std::string HexOf(std::span<const std::uint8_t> data);

private:
    void Block(const std::uint8_t* p);
    std::array<std::uint32_t, 8> h_{};
    std::array<std::uint8_t, 64> buf_{};
    std::size_t used_ = 0;
    std::uint64_t total_ = 0;
};

}  // namespace quorvel::sprd
