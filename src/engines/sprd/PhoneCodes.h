#pragma once
// Sizes of the partition-form records the simulated phone reads and writes (command and
// reply codes are in sprd/Codes.h).

#include <cstddef>
#include <cstdint>

#include "engines/sprd/Codes.h"

namespace quorvel::sprd::phone {

// A UTF-16LE name of 36 code units, then u32 LE fields.
inline constexpr std::size_t kNameUnits = 36;
inline constexpr std::size_t kNameBytes = kNameUnits * 2;
inline constexpr std::size_t kEntryBytes = kNameBytes + 4;        // name + u32 LE size
inline constexpr std::size_t kLongEntryBytes = kEntryBytes + 12;  // + size high word + 8 zero bytes
inline constexpr std::uint32_t kRestOfStorage = 0xFFFFFFFF;

}  // namespace quorvel::sprd::phone
