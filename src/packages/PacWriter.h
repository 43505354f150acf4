#pragma once
// Writes PAC packages: a header, a file table and the data, with both CRCs computed (or,
// for tests and the fuzz corpus, deliberately wrong), and hooks to make any field lie.
// Pure; any thread.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "packages/Crc16.h"
#include "packages/PacFormat.h"

namespace quorvel::packages {

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

inline void WritePac(const std::string& path, const PacSpec& layout) {
    WriteBytes(path, BuildPac(layout));
}

}  // namespace quorvel::packages
