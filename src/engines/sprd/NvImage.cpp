#include "engines/sprd/NvImage.h"

#include "engines/sprd/Scheme.h"

#include <array>
#include <cstdio>

namespace quorvel::sprd {
namespace {

constexpr std::array<std::uint16_t, 256> MakeTable() {
    std::array<std::uint16_t, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        std::uint16_t crc = static_cast<std::uint16_t>(i << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<std::uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x8005 : crc << 1);
        table[i] = crc;
    }
    return table;
}
constexpr auto kTable = MakeTable();

std::string Hex(std::uint16_t id) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04X", id);
    return text;
}

}  // namespace

std::uint16_t NvCrc16(std::span<const std::uint8_t> data) {
    std::uint16_t crc = 0;
    for (std::uint8_t b : data) crc = static_cast<std::uint16_t>((crc << 8) ^ kTable[((crc >> 8) ^ b) & 0xFF]);
    return crc;
}

std::uint32_t ByteSum(std::span<const std::uint8_t> data) {
    std::uint32_t sum = 0;
    for (std::uint8_t b : data) sum += b;
    return sum;
}

bool ReadNvItems(std::span<const std::uint8_t> image, std::vector<NvItem>& items, std::string& error) {
    items.clear();
    if (image.size() < kNvHeader) {
        error = "NV image shorter than its header";
        return false;
    }
    std::size_t at = kNvHeader;
    while (at + 2 <= image.size()) {
        const std::uint16_t id = static_cast<std::uint16_t>(image[at] | (image[at + 1] << 8));
        if (id == kNvEnd) return true;
        if (at + 4 > image.size()) break;
        const std::size_t length = image[at + 2] | (image[at + 3] << 8);
        if (at + 4 + length > image.size()) {
            error = "NV item " + Hex(id) + " runs past the image's end";
            return false;
        }
        items.push_back({id,
                         {image.begin() + static_cast<std::ptrdiff_t>(at + 4),
                          image.begin() + static_cast<std::ptrdiff_t>(at + 4 + length)}});
        at += 4 + ((length + 3) & ~std::size_t{3});
    }
    if (at < image.size()) {
        error = "NV item list cut off at the image's end";
        return false;
    }
    return true;
}

std::size_t NvCoveredEnd(std::span<const std::uint8_t> image) {
    std::size_t at = kNvHeader;
    while (at + 4 <= image.size()) {
        if ((image[at] | (image[at + 1] << 8)) == kNvEnd) return at + 2;
        at += 4 + (((std::size_t{image[at + 2]} | (std::size_t{image[at + 3]} << 8)) + 3) & ~std::size_t{3});
    }
    if (at + 2 <= image.size() && (image[at] | (image[at + 1] << 8)) == kNvEnd) return at + 2;
    return image.size();
}

bool NvCrcValid(std::span<const std::uint8_t> image) {
    if (image.size() < kNvHeader) return false;
    const std::size_t end = NvCoveredEnd(image);
    return NvCrc16(image.subspan(2, end - 2)) == ((image[0] << 8) | image[1]);
}

void FixNvCrc(std::vector<std::uint8_t>& image) {
    if (image.size() < kNvHeader) return;
    const std::span<const std::uint8_t> all(image);
    const std::uint16_t crc = NvCrc16(all.subspan(2, NvCoveredEnd(all) - 2));
    image[0] = static_cast<std::uint8_t>(crc >> 8);
    image[1] = static_cast<std::uint8_t>(crc);
}

std::vector<std::uint8_t> MakeNvImage(const std::vector<NvItem>& items, std::size_t size) {
    std::vector<std::uint8_t> out(kNvHeader, 0);
    for (const auto& item : items) {
        const std::size_t length = item.data.size() > 0xFFFF ? 0xFFFF : item.data.size();
        out.push_back(static_cast<std::uint8_t>(item.id));
        out.push_back(static_cast<std::uint8_t>(item.id >> 8));
        out.push_back(static_cast<std::uint8_t>(length));
        out.push_back(static_cast<std::uint8_t>(length >> 8));
        out.insert(out.end(), item.data.begin(), item.data.begin() + static_cast<std::ptrdiff_t>(length));
        out.resize(out.size() + ((4 - length % 4) % 4), 0);
    }
    out.push_back(0xFF);
    out.push_back(0xFF);
    if (out.size() < size) out.resize(size, 0xFF);
    FixNvCrc(out);
    return out;
}

bool MergeNv(std::span<const std::uint8_t> package, std::span<const std::uint8_t> backup,
             const std::vector<NvItemRef>& keep, std::size_t limit, std::vector<std::uint8_t>& out,
             std::vector<std::string>& notes, std::string& error) {
    std::vector<NvItem> mine, theirs;
    std::string why;
    if (!ReadNvItems(package, mine, why)) {
        error = "the package's NV image is damaged: " + why;
        return false;
    }
    if (!NvCrcValid(backup)) {
        error = "the phone's NV backup fails its CRC: calibration cannot be kept";
        return false;
    }
    if (!ReadNvItems(backup, theirs, why)) {
        error = "the phone's NV backup is damaged (" + why + "): calibration cannot be kept";
        return false;
    }
    for (const auto& ref : keep) {
        const NvItem* phone = nullptr;
        for (const auto& t : theirs)
            if (t.id == ref.id) phone = &t;
        const std::string name =
            (ref.name.empty() ? "" : ref.name + " ") + "(" + Hex(static_cast<std::uint16_t>(ref.id)) + ")";
        if (!phone) {
            notes.push_back("NV item " + name + " not on the phone: the package's kept");
            continue;
        }
        bool replaced = false;
        for (auto& m : mine)
            if (m.id == ref.id) {
                m.data = phone->data;
                replaced = true;
            }
        if (!replaced) mine.push_back(*phone);
        notes.push_back("NV item " + name + " kept from the phone, " + std::to_string(phone->data.size()) + " bytes");
    }
    out = MakeNvImage(mine, package.size());
    if (limit && out.size() > limit) {
        error = "the merged NV image (" + std::to_string(out.size()) + " bytes) exceeds the NV partition (" +
                std::to_string(limit) + " bytes)";
        return false;
    }
    return true;
}

}  // namespace quorvel::sprd
