// The simulated SPRD phone on arbitrary host bytes, in each stage: whatever a host sends,
// the phone answers with well-formed frames and never crashes.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "engines/sprd/PhoneModel.h"

using namespace quorvel::sprd;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    PhoneConfig config;
    config.partitions = {{"fixnv1", 1}, {"boot", 2}, {"system", 0xFFFFFFFF}};
    config.storageMib = 64;
    config.logChance = (data[0] & 1) ? 0.5 : 0;
    PhoneModel phone(config);
    // The stage the input starts in: boot ROM, or after both loaders were acknowledged.
    const std::vector<std::uint8_t> baud = {0x7E};
    phone.Receive(baud);
    std::size_t at = 1;
    while (at < size) {
        const std::size_t n = std::min<std::size_t>(1 + data[at - 1] % 97, size - at);
        const auto stage = phone.GetStage();
        const bool escaping = phone.Escaping();
        FrameDecoder dec(stage == PhoneModel::Stage::BOOT_ROM ? Check::BOOT_ROM_CRC : Check::LOADER_SUM);
        dec.SetEscaping(escaping);
        for (const PhoneAction& a : phone.Receive({data + at, n})) {
            if (a.kind == PhoneAction::SEND) dec.Feed(a.bytes);
        }
        // Replies change form with the stage or transcoding; check those that cannot have.
        const bool sameForm = stage == phone.GetStage() && escaping == phone.Escaping();
        while (auto d = dec.Next())
            if (sameForm && d->kind != Decoded::FRAME) std::abort();
        at += n;
    }
    phone.ReportJson();
    return 0;
}
