#include "packages/Crc16.h"

#include <array>
#include <cstring>

namespace quorvel::packages {
namespace {

using Tables = std::array<std::array<std::uint16_t, 256>, 16>;

constexpr Tables MakeTables() {
    Tables t{};
    for (unsigned b = 0; b < 256; ++b) {
        std::uint16_t c = static_cast<std::uint16_t>(b);
        for (int i = 0; i < 8; ++i) c = (c & 1) ? static_cast<std::uint16_t>((c >> 1) ^ 0xA001) : static_cast<std::uint16_t>(c >> 1);
        t[0][b] = c;
    }
    for (int k = 1; k < 16; ++k)
        for (unsigned b = 0; b < 256; ++b)
            t[k][b] = static_cast<std::uint16_t>((t[k - 1][b] >> 8) ^ t[0][t[k - 1][b] & 0xFF]);
    return t;
}

constexpr Tables kTables = MakeTables();

}  // namespace

std::uint16_t CalcCrc16Bytewise(std::uint16_t crc, const void* data, std::size_t length) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < length; ++i) crc = static_cast<std::uint16_t>((crc >> 8) ^ kTables[0][(crc ^ p[i]) & 0xFF]);
    return crc;
}

std::uint16_t CalcCrc16(std::uint16_t crc, const void* data, std::size_t length) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    const auto& t = kTables;
    std::uint32_t c = crc;
    while (length >= 16) {
        std::uint64_t lo, hi;
        std::memcpy(&lo, p, 8);  // little-endian host (checked where the records are defined)
        std::memcpy(&hi, p + 8, 8);
        lo ^= c;
        c = t[15][lo & 0xFF] ^ t[14][(lo >> 8) & 0xFF] ^ t[13][(lo >> 16) & 0xFF] ^ t[12][(lo >> 24) & 0xFF] ^
            t[11][(lo >> 32) & 0xFF] ^ t[10][(lo >> 40) & 0xFF] ^ t[9][(lo >> 48) & 0xFF] ^ t[8][lo >> 56] ^
            t[7][hi & 0xFF] ^ t[6][(hi >> 8) & 0xFF] ^ t[5][(hi >> 16) & 0xFF] ^ t[4][(hi >> 24) & 0xFF] ^
            t[3][(hi >> 32) & 0xFF] ^ t[2][(hi >> 40) & 0xFF] ^ t[1][(hi >> 48) & 0xFF] ^ t[0][hi >> 56];
        p += 16;
        length -= 16;
    }
    return CalcCrc16Bytewise(static_cast<std::uint16_t>(c), p, length);
}

}  // namespace quorvel::packages
