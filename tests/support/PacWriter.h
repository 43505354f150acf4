#pragma once
// Writes PAC packages for tests and the fuzz corpus: a header, a file table and the
// data, with both CRCs computed (or deliberately wrong), and hooks to make any field lie.

#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "packages/Crc16.h"
#include "packages/PacFormat.h"

namespace quorvel::test {

struct PacEntrySpec {
    std::string id;
    std::string name;
    std::string data;
    std::uint32_t checkFlag = 1;
    std::uint32_t omitFlag = 0;
    std::uint32_t fileFlags = 0;
};

struct PacSpec {
    std::string version = "BP_R1.0.0";
    std::string productName = "Demo";
    std::uint32_t repartitionFlag = 0;
    std::uint32_t repartitionMode = 1;
    std::uint32_t nvBackupFlag = 1;
    bool withCrc = true;
    bool badHeaderCrc = false;
    bool badDataCrc = false;
    std::vector<PacEntrySpec> entries;
    // Applied after the fields are filled and before the CRCs are computed.
    std::function<void(packages::PacHeader&, std::vector<packages::PacFileEntry>&)> tweak;
    // Applied to the finished bytes (to cut the package short, say).
    std::function<void(std::string&)> tweakBytes;
};

inline std::string BuildPac(const PacSpec& layout) {
    using namespace packages;
    PacHeader header = EmptyPacHeader();
    WriteField(header.Version, layout.version);
    WriteField(header.ProductName, layout.productName);
    header.FileCount = static_cast<std::int32_t>(layout.entries.size());
    header.RepartitionFlag = layout.repartitionFlag;
    header.RepartitionMode = layout.repartitionMode;
    header.NvBackupFlag = layout.nvBackupFlag;
    header.Magic = layout.withCrc ? kPacMagic : 0;
    std::vector<PacFileEntry> table(layout.entries.size());  // zeroed
    std::uint64_t size = sizeof header + table.size() * sizeof(PacFileEntry);
    for (std::size_t i = 0; i < table.size(); ++i) {
        const PacEntrySpec& e = layout.entries[i];
        WriteField(table[i].FileId, e.id);
        WriteField(table[i].FileName, e.name);
        table[i].FileSize = static_cast<std::uint32_t>(e.data.size());
        table[i].CheckFlag = e.checkFlag;
        table[i].OmitFlag = e.omitFlag;
        table[i].FileFlags = e.fileFlags;
        size += e.data.size();
    }
    header.PackageSize = static_cast<std::uint32_t>(size);
    if (layout.tweak) layout.tweak(header, table);

    std::string body(reinterpret_cast<const char*>(table.data()), table.size() * sizeof(PacFileEntry));
    for (const auto& e : layout.entries) body += e.data;
    std::uint16_t dataCrc = CalcCrc16Bytewise(0, body.data(), body.size());
    if (layout.badDataCrc) dataCrc ^= 0x0101;
    header.DataCrc = dataCrc;
    header.HeaderCrc = CalcCrc16Bytewise(0, &header, offsetof(PacHeader, HeaderCrc));
    if (layout.badHeaderCrc) header.HeaderCrc ^= 0x0101;
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    bytes += body;
    if (layout.tweakBytes) layout.tweakBytes(bytes);
    return bytes;
}

inline void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline void WritePac(const std::string& path, const PacSpec& layout) { WriteBytes(path, BuildPac(layout)); }

// A typical SPRD package: FDL files, NV, a FLASH image, a system image and the
// unnamed configuration file at the end.
inline PacSpec TypicalSprdPac() {
    PacSpec layout;
    layout.productName = "SC9863A";
    layout.entries = {
        {"FDL", "fdl1.bin", std::string(300, '\x11')},
        {"FDL2", "fdl2.bin", std::string(500, '\x22')},
        {"NV_W", "nvitem.bin", std::string(200, '\x33')},
        {"FLASH", "flash.img", std::string(1000, '\x44')},
        {"System", "system.img", std::string(4096, '\x55')},
        {"PhaseCheck", "", "", 1, 1},
        {"", "product.xml", std::string("<config/>\n") + '\0'},
    };
    return layout;
}

// The smallest package whose selection passes: FDL, NV and a system image.
inline PacSpec SmallSprdPac() {
    PacSpec layout;
    layout.entries = {{"FDL", "fdl.bin", "f"}, {"NV", "nv.bin", "n"}, {"System", "sys.img", "s"}};
    return layout;
}

}  // namespace quorvel::test
