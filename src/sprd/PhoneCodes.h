#pragma once
// Command and reply codes the simulated phone speaks. Kept apart so the phone can move to
// the engine's protocol-code header without touching its logic.

#include <cstdint>

namespace quorvel::sprd::phone {

enum Cmd : std::uint16_t {
    CONNECT = 0x00,
    START_DATA = 0x01,
    MIDST_DATA = 0x02,
    END_DATA = 0x03,
    EXEC_DATA = 0x04,
    NORMAL_RESET = 0x05,
    ERASE_FLASH = 0x0A,
    REPARTITION = 0x0B,
    READ_START = 0x10,
    READ_MIDST = 0x11,
    READ_END = 0x12,
    POWER_OFF = 0x17,
    DISABLE_TRANSCODE = 0x21,
    READ_PARTITION = 0x2D,
};

enum Reply : std::uint16_t {
    ACK = 0x80,
    VER = 0x81,
    INVALID_CMD = 0x82,
    UNKNOWN_CMD = 0x83,
    OPERATION_FAILED = 0x84,
    DOWNLOAD_NOT_STARTED = 0x86,
    DOWNLOAD_STARTED_TWICE = 0x87,
    ENDED_EARLY = 0x88,
    BAD_DESTINATION = 0x89,
    BAD_SIZE = 0x8A,
    BAD_FRAME = 0x8B,
    READ_DATA = 0x93,
    INCOMPATIBLE_PARTITION = 0x96,
    CHECKSUM_ERROR = 0xA0,
    SIGNATURE_REFUSED = 0xA6,
    PARTITION_TABLE = 0xBA,
    UNSUPPORTED = 0xFE,
    LOG = 0xFF,
};

// Partition-form records: a UTF-16LE name of 36 code units, then u32 LE fields.
inline constexpr std::size_t kNameUnits = 36;
inline constexpr std::size_t kNameBytes = kNameUnits * 2;
inline constexpr std::size_t kEntryBytes = kNameBytes + 4;      // name + u32 LE size
inline constexpr std::size_t kLongEntryBytes = kEntryBytes + 12;  // + size high word + 8 zero bytes
inline constexpr std::uint32_t kRestOfStorage = 0xFFFFFFFF;

}  // namespace quorvel::sprd::phone
