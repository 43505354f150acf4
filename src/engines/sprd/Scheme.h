#pragma once
// The package's download scheme, read from its XML configuration: the product's NV items
// to keep and partition table, and the scheme's entries in download order. Read tolerantly
// (unknown elements ignored, names without regard to case). Pure functions; any thread.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorvel::sprd {

inline constexpr std::uint32_t kRestOfStorage = 0xFFFFFFFF;

struct NvItemRef {
    std::string name;
    std::uint32_t id = 0;
};

struct PartitionSize {
    std::string name;
    std::uint32_t sizeMiB = 0;  // kRestOfStorage: the rest
};

struct SchemeEntry {
    std::string id;     // ID, as written
    std::string alias;  // IDAlias
    std::string type;   // CODE, EraseFlash, ...
    std::string block;  // the partition (Block id); empty for the address form
    bool addressed = false;
    std::uint64_t base = 0;
    std::uint64_t size = 0;
    int flag = 1;       // 0: no file needed
    int checkFlag = 1;  // 0 optional, 1 must, 2 not checked
    bool IsErase() const;
};

struct Scheme {
    std::string product;  // the product chosen
    std::string name;     // the scheme chosen
    std::string choice;   // how it was chosen, for the log
    std::vector<NvItemRef> nvItems;
    std::vector<PartitionSize> partitions;
    std::vector<SchemeEntry> entries;
};

// Reads `xml`. `productName` (may be empty) chooses the product and, with several schemes,
// the scheme. False with `error` naming what is missing or unreadable.
bool ReadScheme(std::string_view xml, const std::string& productName, Scheme& out, std::string& error);

// Text to number: decimal or 0x hex, the whole text (blanks around allowed).
bool ParseNumber(std::string_view text, std::uint64_t& value);

}  // namespace quorvel::sprd
