#pragma once
// A small SPRD package for the simulated bench and first tries on a bench: its
// configuration has a download scheme the native engine reads (two loaders, a partition
// table, NV items to keep, an erase entry and images), and its NV image has the layout
// the engine merges into. Generated, the same bytes every time, so nothing large is kept
// in the repository. Pure; any thread.

#include <cstdint>
#include <string>

#include "packages/PacWriter.h"

namespace quorvel::packages {

inline constexpr const char* kDemoSprdProduct = "QDEMO9863";

// `systemKiB`: the size of the system image (the bulk of a download).
PacSpec DemoSprdPac(std::uint32_t systemKiB = 1024);

// The NV image: CRC-16 (0x8005, big-endian) of what follows up to the end marker, two
// zero bytes, items (u16 LE id, u16 LE length, data padded to 4 bytes), id 0xFFFF, then
// 0xFF to `size`.
std::string DemoNvImage(std::size_t size);

}  // namespace quorvel::packages
