#pragma once
// The records exchanged with the engines. Those with a fixed layout carry a
// compile-time size and offset check; their char fields are read and written here, at
// the engines' edge, and nowhere else.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace quorvel::app {

// Copies `text` into a fixed char field, NUL-terminated, cut to fit.
template <std::size_t N>
void CopyField(char (&field)[N], const std::string& text) {
    const std::size_t n = text.size() < N - 1 ? text.size() : N - 1;
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
}

// Text of a fixed char field, up to its first NUL or its end.
template <std::size_t N>
std::string FieldText(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// One downstream port of a USB hub: the hub's instance ID and the 1-based port. Equal
// when both are, the ID compared exactly.
struct HubPortEntry {
    std::string hubId;
    std::uint32_t port = 0;
    bool operator==(const HubPortEntry&) const = default;
};

// The kinds of phone a device event announces; their numbers are also NotifyCodes.
enum class EventKind : std::uint32_t { MTK = 2, SPRD = 3, CFG = 4 };

// One plugged-in phone, handed to a worker and to the MTK engines. A value: no engine
// outside the station reads its bytes (an engine program gets the phone on its command
// line), so its texts are kept whole.
struct DeviceInfo {
    EventKind type{};  // 0: none of the kinds
    std::string friendlyName;
    std::string location;
    std::string instanceId;
    HubPortEntry hubPort;  // of a phone found at start-up; empty otherwise
};

// One file of an SPRD package as the SPRD engine takes it.
struct DlFileInfo {
    char FileId[256];
    char FilePath[256];
    std::uint32_t FileSize;
    std::uint32_t CheckFlag;
};
static_assert(sizeof(DlFileInfo) == 520);
static_assert(offsetof(DlFileInfo, FileSize) == 512);

// Efuse settings for the MTK engine's pre-load. The engine's own build gives the
// pointer width: 24 bytes for a 32-bit engine, 32 bytes here.
struct SpmtkEfuseInfo {  // SPMTK_EFUSE_INFO
    std::int32_t EfuseEnabled;
    std::int32_t DaVariant;
    std::int32_t reserved0;
    std::int32_t reserved1;
    const char* DaBrFile;
    const char* DaPlFile;
};
static_assert(sizeof(SpmtkEfuseInfo) == 16 + 2 * sizeof(void*));
static_assert(offsetof(SpmtkEfuseInfo, DaBrFile) == 16);

// Versions reported by the MTK engine.
struct VersionInfo {
    char daVersion[16];
    char daBuild[128];
    char module1Version[32];
    char module1Build[128];
    char module2Version[32];
    char module2Build[128];
};
static_assert(sizeof(VersionInfo) == 464);
static_assert(offsetof(VersionInfo, module1Version) == 144);
static_assert(offsetof(VersionInfo, module2Build) == 336);

// The engine's versions as texts, read from its record where it was filled.
struct EngineVersions {
    std::string daVersion, daBuild, module1Version, module1Build, module2Version, module2Build;
};
inline EngineVersions VersionsOf(const VersionInfo& v) {
    return {FieldText(v.daVersion),    FieldText(v.daBuild),        FieldText(v.module1Version),
            FieldText(v.module1Build), FieldText(v.module2Version), FieldText(v.module2Build)};
}

}  // namespace quorvel::app
