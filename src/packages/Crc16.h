#pragma once
// CRC-16/ARC (reflected polynomial 0xA001, initial 0, no final XOR; check value 0xBB3D),
// the checksum of PAC packages. Pure functions; any thread.

#include <cstddef>
#include <cstdint>

namespace quorvel::packages {

// Continues the running `crc` over `data`: carry-less multiplication folding where the
// processor has it, else sixteen bytes per step through sixteen tables.
std::uint16_t CalcCrc16(std::uint16_t crc, const void* data, std::size_t length);

// The same, one byte at a time: the reference the fast form is checked against.
std::uint16_t CalcCrc16Bytewise(std::uint16_t crc, const void* data, std::size_t length);

}  // namespace quorvel::packages
