#pragma once
// The PAC package layout: a fixed header, a table of file entries, then the data of
// every entry in table order with no gaps. Little-endian, texts UTF-16LE and
// NUL-terminated inside their fields. Pure functions; any thread.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

namespace quorvel::packages {

static_assert(std::endian::native == std::endian::little, "PAC records are read in place");

inline constexpr std::uint32_t kPacMagic = 0xFFFAFFFA;
inline constexpr const char* kPacVersion = "BP_R1.0.0";

struct PacHeader {
    char16_t Version[24];
    std::uint32_t PackageSize;
    char16_t ProductName[256];
    char16_t ProductVersion[256];
    std::int32_t FileCount;
    std::uint32_t unused0[2];
    std::uint32_t RepartitionFlag;
    std::uint32_t RepartitionMode;
    std::uint32_t NvBackupFlag;
    std::uint32_t unused1;
    char16_t ProductAlias[100];
    std::uint32_t unused2[3];
    std::uint8_t reserved[800];
    std::uint32_t Magic;
    std::uint16_t HeaderCrc;
    std::uint16_t DataCrc;
};
static_assert(sizeof(PacHeader) == 2124);
static_assert(offsetof(PacHeader, PackageSize) == 48);
static_assert(offsetof(PacHeader, ProductName) == 52);
static_assert(offsetof(PacHeader, ProductVersion) == 564);
static_assert(offsetof(PacHeader, FileCount) == 1076);
static_assert(offsetof(PacHeader, RepartitionFlag) == 1088);
static_assert(offsetof(PacHeader, NvBackupFlag) == 1096);
static_assert(offsetof(PacHeader, ProductAlias) == 1104);
static_assert(offsetof(PacHeader, reserved) == 1316);
static_assert(offsetof(PacHeader, Magic) == 2116);
static_assert(offsetof(PacHeader, HeaderCrc) == 2120);

struct PacFileEntry {
    std::uint32_t unused0;
    char16_t FileId[256];
    char16_t FileName[256];
    char16_t unusedText[256];
    std::uint32_t FileSize;
    std::uint32_t FileFlags;
    std::uint32_t CheckFlag;
    std::uint32_t unused1;
    std::uint32_t OmitFlag;
    std::uint8_t reserved[1020];
};
static_assert(sizeof(PacFileEntry) == 2580);
static_assert(offsetof(PacFileEntry, FileName) == 516);
static_assert(offsetof(PacFileEntry, FileSize) == 1540);
static_assert(offsetof(PacFileEntry, OmitFlag) == 1556);

inline constexpr std::size_t kPacHeaderSize = sizeof(PacHeader);
inline constexpr std::size_t kPacEntrySize = sizeof(PacFileEntry);
// The most table entries held in memory: 16,384 entries take 41 MiB, which with the
// 10 MiB copy buffer keeps any package under 64 MiB. Real packages list a few dozen.
inline constexpr std::int32_t kPacMaxFileCount = 16384;

// A header the station makes for its own use: zero-filled, Magic set.
PacHeader EmptyPacHeader();

// Text conversion between the UTF-16 fields and the UTF-8 the station uses.
// Reading fails when the field has no terminator (the text is longer than its
// field) or holds an unpaired surrogate; writing fails when the text does not fit
// with its terminator or is not valid UTF-8. A failed write leaves the field as it was.
template <std::size_t N>
bool ReadField(const char16_t (&field)[N], std::string& out);
template <std::size_t N>
bool WriteField(char16_t (&field)[N], const std::string& text);
// Lenient form for display: stops at the field's end, replaces what is not text.
template <std::size_t N>
std::string FieldForDisplay(const char16_t (&field)[N]);

bool Utf16ToUtf8(const char16_t* text, std::size_t units, std::string& out);
bool Utf8ToUtf16(const std::string& text, std::u16string& out);
std::string Utf16ToUtf8Lossy(const char16_t* text, std::size_t units);

// The package carries both CRCs when its Magic says so.
bool PacCrcOn(const PacHeader& header);
// The CRC residue over header bytes 0..2121 is 0.
bool PacHeaderCrcValid(const PacHeader& header);
bool PacVersionSupported(const PacHeader& header);

// "PAC_" in front of the product name unless it starts with it. Fails (and leaves
// the header as it was) when the result would not fit the field or the narrow
// 260-byte buffer the name travels in.
bool NormaliseProductName(PacHeader& header);

// Why a file name in the table cannot be used for an output file; empty when it can.
// Only names that stay inside the folder: not empty, no '/' or '\', not "." or "..".
std::string UnsafeFileNameReason(const std::string& name);

// ---- template definitions ----
template <std::size_t N>
bool ReadField(const char16_t (&field)[N], std::string& out) {
    std::size_t n = 0;
    while (n < N && field[n] != 0) ++n;
    if (n == N) return false;
    return Utf16ToUtf8(field, n, out);
}

template <std::size_t N>
bool WriteField(char16_t (&field)[N], const std::string& text) {
    std::u16string wide;
    if (!Utf8ToUtf16(text, wide) || wide.size() >= N) return false;
    for (std::size_t i = 0; i < N; ++i) field[i] = i < wide.size() ? wide[i] : 0;
    return true;
}

template <std::size_t N>
std::string FieldForDisplay(const char16_t (&field)[N]) {
    std::size_t n = 0;
    while (n < N && field[n] != 0) ++n;
    return Utf16ToUtf8Lossy(field, n);
}

}  // namespace quorvel::packages
