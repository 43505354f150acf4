#include "engines/sprd/Codes.h"

#include <cstdio>

namespace quorvel::sprd {
namespace {

struct Reply {
    std::uint16_t type;
    const char* words;
};

// One table: the words go into the operator's error line, so they say what to do where
// the reply allows it.
constexpr Reply kReplies[] = {
    {rep::ACK, "phone acknowledged"},
    {rep::VER, "phone sent its version"},
    {rep::INVALID_CMD, "phone called the command invalid at this point"},
    {rep::UNKNOWN_CMD, "phone does not know the command (loader too old for this package?)"},
    {rep::OPERATION_FAILED, "phone reported the operation failed"},
    {rep::NOT_SUPPORT_BAUDRATE, "phone does not support the baud rate"},
    {rep::DOWN_NOT_START, "phone got data before the download started"},
    {rep::DOWN_MULTI_START, "phone says the download was started twice"},
    {rep::DOWN_EARLY_END, "phone says the download ended early (image shorter than announced)"},
    {rep::DOWN_DEST_ERROR,
     "phone refused the destination (partition or address unknown: wrong package for this phone?)"},
    {rep::DOWN_SIZE_ERROR, "phone refused the size (image larger than the partition: wrong package for this phone?)"},
    {rep::VERIFY_ERROR, "phone received a damaged frame (check the cable and the hub)"},
    {rep::NO_MEMORY, "phone ran out of memory"},
    {rep::INPUT_TIMEOUT, "phone timed out waiting for data (check the cable and the hub)"},
    {rep::READ_DATA, "phone sent read data"},
    {rep::INCOMPATIBLE_PARTITION, "phone reports an incompatible partition"},
    {rep::UNKNOWN_DEVICE, "phone reports an unknown device"},
    {rep::CHECKSUM_ERROR, "phone found a checksum error in the image"},
    {rep::CHECKSUM_DIFF, "phone found the image's checksum differs"},
    {rep::WRITE_ERROR, "phone could not write its flash (storage worn or faulty)"},
    {rep::CHIP_ID_MISMATCH, "phone's chip does not match the loader (wrong package for this phone)"},
    {rep::FLASH_CONFIG_ERROR, "phone's flash configuration is wrong (wrong package for this phone?)"},
    {rep::SIGNATURE_REFUSED, "phone refused the signature"},
    {rep::SECURITY_FAILED, "phone's security check failed (package not signed for this phone)"},
    {rep::FLASH_INIT_FAILED, "phone could not initialise its flash"},
    {rep::PARTITION_TABLE, "phone sent its partition table"},
    {rep::UNSUPPORTED, "phone does not support the command"},
    {rep::LOG, "phone sent log text"},
};

}  // namespace

std::string ReplyText(std::uint16_t type) {
    char code[16];
    std::snprintf(code, sizeof code, " (0x%02X)", type);
    for (const auto& r : kReplies)
        if (r.type == type) return r.words + std::string(code);
    return "phone sent an unknown reply" + std::string(code);
}

const char* CommandName(std::uint16_t type) {
    switch (type) {
        case cmd::CONNECT: return "CONNECT";
        case cmd::START_DATA: return "START_DATA";
        case cmd::MIDST_DATA: return "MIDST_DATA";
        case cmd::END_DATA: return "END_DATA";
        case cmd::EXEC_DATA: return "EXEC_DATA";
        case cmd::NORMAL_RESET: return "NORMAL_RESET";
        case cmd::ERASE_FLASH: return "ERASE_FLASH";
        case cmd::REPARTITION: return "REPARTITION";
        case cmd::READ_START: return "READ_START";
        case cmd::READ_MIDST: return "READ_MIDST";
        case cmd::READ_END: return "READ_END";
        case cmd::POWER_OFF: return "POWER_OFF";
        case cmd::DISABLE_TRANSCODE: return "DISABLE_TRANSCODE";
        case cmd::READ_PARTITION: return "READ_PARTITION";
    }
    return "command";
}

}  // namespace quorvel::sprd
