#include "packages/PacInspect.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "packages/BinPack.h"
#include "packages/Crc16.h"
#include "packages/TextFormat.h"
#include "platform/AtomicFile.h"
#include "station/Texts.h"

namespace quorvel::packages {
namespace texts = app::texts;

namespace {

class File {
public:
    explicit File(const std::string& path) : fd_(OpenRegularFile(path)) {}
    bool Ok() const { return fd_.valid(); }
    std::uint64_t Size() const {
        struct stat st;
        return ::fstat(fd_.get(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
    }
    std::size_t Read(void* buffer, std::size_t length) { return platform::ReadFully(fd_.get(), buffer, length); }

private:
    platform::UniqueFd fd_;
};

}  // namespace

bool CheckPacHeader(PacHeader& header, std::size_t bytesRead, std::uint64_t fileSize, std::string& message) {
    if (PacCrcOn(header) && !PacHeaderCrcValid(header)) {
        message = texts::kPacCrcError;
        return false;
    }
    const bool nameFits = NormaliseProductName(header);
    if (bytesRead < kPacHeaderSize || !PacVersionSupported(header)) {
        message = texts::kPacVersionNotSupported;
        return false;
    }
    if (!nameFits) {
        message = texts::kPacProductNameTooLong;
        return false;
    }
    if (header.PackageSize != fileSize) {
        message = texts::kPacSizeWrong;
        return false;
    }
    if (header.FileCount == 0) {
        message = texts::kPacNoFiles;
        return false;
    }
    return true;
}

bool ReadEntryText(const char16_t* field, std::size_t units, int entry, std::string& out, std::string& message) {
    std::size_t n = 0;
    while (n < units && field[n] != 0) ++n;
    if (n == units) {
        message = Format(texts::kPacTextTooLong, entry);
        return false;
    }
    if (!Utf16ToUtf8(field, n, out)) {
        message = Format(texts::kPacTextNotUtf16, entry);
        return false;
    }
    return true;
}

bool PacEntrySizeImpossible(const PacHeader& header, const PacFileEntry& entry) {
    return entry.FileSize == 0xFFFFFFFFu || entry.FileSize >= header.PackageSize;
}

bool CheckPacFileNames(const PacHeader& header, const std::vector<PacFileEntry>& table, std::string& message) {
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (table[i].FileSize == 0 || PacEntrySizeImpossible(header, table[i])) continue;  // refused in order later
        std::string name;
        if (!ReadEntryText(table[i].FileName, static_cast<int>(i), name, message)) return false;
        const std::string reason = UnsafeFileNameReason(name);
        if (!reason.empty()) {
            message = Format(texts::kPacFileNameRefused, name.c_str(), static_cast<int>(i), reason.c_str());
            return false;
        }
    }
    return true;
}

std::int64_t PacTableCapacity(std::uint64_t fileSize) {
    return fileSize < kPacHeaderSize ? 0 : static_cast<std::int64_t>((fileSize - kPacHeaderSize) / kPacEntrySize);
}

std::size_t HandedOnCount(const std::vector<PacFileEntry>& table) {
    std::size_t unnamed = 0;
    for (const auto& e : table)
        if (e.FileSize != 0 && e.FileId[0] == 0) ++unnamed;
    return table.size() - unnamed;
}

namespace {

bool ReadContents(File& file, const std::string& path, PacContents& out, std::string& message) {
    if (!file.Ok()) {
        message = Format(texts::kPacCannotOpen, path.c_str());
        return false;
    }
    out.fileSize = file.Size();
    if (out.fileSize < kPacHeaderSize) {
        message = texts::kPacTooSmall;
        return false;
    }
    out.header = PacHeader{};
    const std::size_t got = file.Read(&out.header, kPacHeaderSize);
    if (!CheckPacHeader(out.header, got, out.fileSize, message)) return false;
    if (out.header.FileCount < 0) {
        message = texts::kPacOutOfMemory;
        return false;
    }
    if (out.header.FileCount > PacTableCapacity(out.fileSize)) {
        message = texts::kPacReadFailed;
        return false;
    }
    if (out.header.FileCount > kPacMaxFileCount) {
        message = Format(texts::kPacTooManyFiles, out.header.FileCount, kPacMaxFileCount);
        return false;
    }
    out.table.resize(static_cast<std::size_t>(out.header.FileCount));
    const std::size_t bytes = out.table.size() * kPacEntrySize;
    if (file.Read(out.table.data(), bytes) < bytes) {
        message = texts::kPacReadFailed;
        return false;
    }
    return CheckPacFileNames(out.header, out.table, message);
}

}  // namespace

bool ReadPacContents(const std::string& path, PacContents& out, std::string& message) {
    File file(path);
    return ReadContents(file, path, out, message);
}

bool VerifyPac(const std::string& path, PacVerification& out, std::string& message,
               const std::function<void(int)>& progress, PacContents* keep) {
    out = PacVerification{};
    PacContents own;
    PacContents& contents = keep ? *keep : own;
    File file(path);
    if (!ReadContents(file, path, contents, message)) return false;
    const PacHeader& h = contents.header;
    out.crcPresent = PacCrcOn(h);
    out.headerCrcOk = out.crcPresent;  // a wrong header CRC was refused above

    std::uint64_t dataBytes = 0;
    bool complete = true;
    for (const auto& e : contents.table) {
        if (PacEntrySizeImpossible(h, e)) complete = false;
        dataBytes += e.FileSize;
    }
    out.dataBytes = dataBytes;
    std::uint16_t crc = CalcCrc16(0, contents.table.data(), contents.table.size() * kPacEntrySize);
    std::uint64_t position = kPacHeaderSize + contents.table.size() * kPacEntrySize;
    std::vector<std::uint8_t> buffer(kPacChunkSize);
    std::uint64_t remaining = complete ? dataBytes : 0;
    while (remaining > 0) {
        if (progress) progress(static_cast<int>(position * 100 / h.PackageSize));
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(remaining, kPacChunkSize));
        const std::size_t got = file.Read(buffer.data(), n);
        crc = CalcCrc16(crc, buffer.data(), got);
        position += got;
        remaining -= got;
        if (got < n) {
            complete = false;
            break;
        }
    }
    if (progress) progress(100);
    out.dataComplete = complete;
    out.dataCrcOk = out.crcPresent && complete && CalcCrc16(crc, &h.DataCrc, sizeof h.DataCrc) == 0;
    if (!complete) {
        message = texts::kPacReadFailed;
        return false;
    }
    if (out.crcPresent && !out.dataCrcOk) {
        message = texts::kPacCrcError;
        return false;
    }
    return true;
}

}  // namespace quorvel::packages
