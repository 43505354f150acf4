// The SPRD frame decoder on arbitrary bytes, fed in pieces whose sizes the input chooses and
// with escaping switched where the input says: no crash, and afterwards a frame encoded
// with the same settings still decodes whole, whatever came before it.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "engines/sprd/Frame.h"

using namespace quorvel::sprd;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const Check checks[] = {Check::BOOT_ROM_CRC, Check::LOADER_SUM, Check::DETECT};
    const Check check = checks[data[0] % 3];
    const std::size_t switchAt = data[1];  // after this many bytes escaping flips
    const std::uint8_t pieceSeed = data[2];
    data += 3;
    size -= 3;

    FrameDecoder dec(check);
    dec.SetEscaping(pieceSeed & 1);
    std::size_t at = 0, piece = 1 + pieceSeed % 17;
    while (at < size) {
        const std::size_t n = std::min(piece, size - at);
        if (at <= switchAt && switchAt < at + n) dec.SetEscaping(!dec.Escaping());
        dec.Feed({data + at, n});
        at += n;
        piece = 1 + (piece * 7 + data[at - 1]) % 61;
        while (auto d = dec.Next()) {
            if (d->kind == Decoded::FRAME && d->frame.payload.size() > kMaxPayload) std::abort();
        }
    }

    // A closing flag ends whatever is half read; then a well-formed frame must come through.
    const std::vector<std::uint8_t> payload(data, data + std::min<std::size_t>(size, 300));
    const Check sendCheck = check == Check::DETECT ? Check::LOADER_SUM : check;
    const auto wire = EncodeFrame(0x0102, payload, sendCheck, dec.Escaping());
    dec.Reset();
    for (std::size_t i = 0; i < wire.size(); i += 5)
        dec.Feed({wire.data() + i, std::min<std::size_t>(5, wire.size() - i)});
    const auto d = dec.Next();
    if (!d || d->kind != Decoded::FRAME || d->frame.type != 0x0102 || d->frame.payload != payload) std::abort();
    return 0;
}
