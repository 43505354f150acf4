#pragma once
// The NV image (calibration, IMEI): its item list, its CRC, and the merge of a phone's
// backed-up items into a package's image. Layout in docs/sprd-engine.md. Pure functions;
// any thread.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace quorvel::sprd {

// From sprd/Scheme.h, not included here: the simulated phone has constants of its own.
struct NvItemRef;

inline constexpr std::size_t kNvHeader = 4;
inline constexpr std::uint16_t kNvEnd = 0xFFFF;

// CRC-16, polynomial 0x8005, initial 0, most significant bit first, no final XOR.
std::uint16_t NvCrc16(std::span<const std::uint8_t> data);
// The 32-bit sum of all bytes, appended to the NV image's START_DATA.
std::uint32_t ByteSum(std::span<const std::uint8_t> data);

struct NvItem {
    std::uint16_t id = 0;
    std::vector<std::uint8_t> data;
};

// The items of `image`; false with `error` when the list runs past the image's end.
bool ReadNvItems(std::span<const std::uint8_t> image, std::vector<NvItem>& items, std::string& error);
// Where the CRC's cover ends: after the end marker (the fill after it is not covered, so an
// image reads back the same from a partition larger than itself), else the image's end.
std::size_t NvCoveredEnd(std::span<const std::uint8_t> image);
// Whether bytes 0..1 hold the CRC of bytes 2 up to the cover's end.
bool NvCrcValid(std::span<const std::uint8_t> image);
void FixNvCrc(std::vector<std::uint8_t>& image);
// An image of `items`, the end marker, 0xFF up to `size` (at least what the items need),
// CRC set.
std::vector<std::uint8_t> MakeNvImage(const std::vector<NvItem>& items, std::size_t size = 0);

// The package's image with each of `keep` taken from the phone's `backup` (added when the
// package lacks it; the package's kept when the phone lacks it), CRC fixed. Fails when the
// backup or the package's image is not a sound NV image, or the result exceeds `limit`
// bytes (0: no limit). `notes` says what was kept.
bool MergeNv(std::span<const std::uint8_t> package, std::span<const std::uint8_t> backup,
             const std::vector<NvItemRef>& keep, std::size_t limit, std::vector<std::uint8_t>& out,
             std::vector<std::string>& notes, std::string& error);

}  // namespace quorvel::sprd
