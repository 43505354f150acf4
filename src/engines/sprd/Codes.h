#pragma once
// The SPRD download protocol's command and reply codes, and the words an operator reads
// for each reply. Plain constants and pure functions; any thread.

#include <cstdint>
#include <string>

namespace quorvel::sprd {

namespace cmd {
inline constexpr std::uint16_t CONNECT = 0x00;
inline constexpr std::uint16_t START_DATA = 0x01;
inline constexpr std::uint16_t MIDST_DATA = 0x02;
inline constexpr std::uint16_t END_DATA = 0x03;
inline constexpr std::uint16_t EXEC_DATA = 0x04;
inline constexpr std::uint16_t NORMAL_RESET = 0x05;
inline constexpr std::uint16_t ERASE_FLASH = 0x0A;
inline constexpr std::uint16_t REPARTITION = 0x0B;
inline constexpr std::uint16_t READ_START = 0x10;
inline constexpr std::uint16_t READ_MIDST = 0x11;
inline constexpr std::uint16_t READ_END = 0x12;
inline constexpr std::uint16_t POWER_OFF = 0x17;
inline constexpr std::uint16_t DISABLE_TRANSCODE = 0x21;
inline constexpr std::uint16_t READ_PARTITION = 0x2D;
}  // namespace cmd

namespace rep {
inline constexpr std::uint16_t ACK = 0x80;
inline constexpr std::uint16_t VER = 0x81;
inline constexpr std::uint16_t INVALID_CMD = 0x82;
inline constexpr std::uint16_t UNKNOWN_CMD = 0x83;
inline constexpr std::uint16_t OPERATION_FAILED = 0x84;
inline constexpr std::uint16_t NOT_SUPPORT_BAUDRATE = 0x85;
inline constexpr std::uint16_t DOWN_NOT_START = 0x86;
inline constexpr std::uint16_t DOWN_MULTI_START = 0x87;
inline constexpr std::uint16_t DOWN_EARLY_END = 0x88;
inline constexpr std::uint16_t DOWN_DEST_ERROR = 0x89;
inline constexpr std::uint16_t DOWN_SIZE_ERROR = 0x8A;
inline constexpr std::uint16_t VERIFY_ERROR = 0x8B;
inline constexpr std::uint16_t NO_MEMORY = 0x8D;
inline constexpr std::uint16_t INPUT_TIMEOUT = 0x8E;
inline constexpr std::uint16_t READ_DATA = 0x93;
inline constexpr std::uint16_t INCOMPATIBLE_PARTITION = 0x96;
inline constexpr std::uint16_t UNKNOWN_DEVICE = 0x97;
inline constexpr std::uint16_t CHECKSUM_ERROR = 0xA0;
inline constexpr std::uint16_t CHECKSUM_DIFF = 0xA1;
inline constexpr std::uint16_t WRITE_ERROR = 0xA2;
inline constexpr std::uint16_t CHIP_ID_MISMATCH = 0xA3;
inline constexpr std::uint16_t FLASH_CONFIG_ERROR = 0xA4;
inline constexpr std::uint16_t SIGNATURE_REFUSED = 0xA6;
inline constexpr std::uint16_t SECURITY_FAILED = 0xAA;
inline constexpr std::uint16_t FLASH_INIT_FAILED = 0xB4;
inline constexpr std::uint16_t PARTITION_TABLE = 0xBA;
inline constexpr std::uint16_t UNSUPPORTED = 0xFE;
inline constexpr std::uint16_t LOG = 0xFF;
}  // namespace rep

// "phone refused the signature (0xA6)": what the phone said, in words an operator can act
// on, with the code. Unknown codes still name the code.
std::string ReplyText(std::uint16_t type);

// "START_DATA": the command's name, for logs and recordings.
const char* CommandName(std::uint16_t type);

}  // namespace quorvel::sprd
