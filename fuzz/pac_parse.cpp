// PAC header and file-table checks on arbitrary bytes: no crash, no overflow, and a
// table that passes the name checks never names a path outside the folder.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "packages/PacFormat.h"
#include "packages/PacInspect.h"
#include "packages/SprdDownloadConfig.h"

using namespace quorvel::packages;

namespace {

void CheckTable(PacHeader header, const std::uint8_t* data, std::size_t size) {
    std::string message;
    if (!CheckPacHeader(header, kPacHeaderSize, size, message)) return;
    if (header.FileCount < 0 || header.FileCount > PacTableCapacity(size)) return;
    std::vector<PacFileEntry> table(static_cast<std::size_t>(header.FileCount));
    std::memcpy(table.data(), data + kPacHeaderSize, table.size() * kPacEntrySize);
    if (CheckPacFileNames(header, table, message)) {
        for (const auto& e : table) {
            if (e.FileSize == 0 || e.FileSize == 0xFFFFFFFFu || e.FileSize >= header.PackageSize) continue;
            std::string name;
            if (!ReadField(e.FileName, name) || !UnsafeFileNameReason(name).empty()) std::abort();
            if (name.find('/') != std::string::npos || name == ".." || name.empty()) std::abort();
        }
    }
    header.FileCount = static_cast<std::int32_t>(HandedOnCount(table));
    SprdSelection selection;
    if (SelectSprdFiles(header, table, selection, message) && selection.files.size() > table.size()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kPacHeaderSize) return 0;
    PacHeader header;
    std::memcpy(&header, data, sizeof header);
    std::string product;
    ReadField(header.ProductName, product);
    (void)FieldForDisplay(header.ProductAlias);

    // As the file is, and as if the size and CRC fields agreed, to reach the table.
    CheckTable(header, data, size);
    header.Magic = 0;
    header.PackageSize = static_cast<std::uint32_t>(size);
    CheckTable(header, data, size);
    return 0;
}
