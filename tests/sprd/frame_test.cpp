#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engines/sprd/Frame.h"

using namespace quorvel::sprd;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes B(std::initializer_list<int> v) {
    Bytes out;
    for (int x : v) out.push_back(static_cast<std::uint8_t>(x));
    return out;
}

std::vector<Decoded> DecodeAll(FrameDecoder& d, const Bytes& in, std::size_t piece = 0) {
    if (piece == 0) {
        d.Feed(in);
    } else {
        for (std::size_t i = 0; i < in.size(); i += piece)
            d.Feed(std::span<const std::uint8_t>(in).subspan(i, std::min(piece, in.size() - i)));
    }
    std::vector<Decoded> out;
    while (auto x = d.Next()) out.push_back(std::move(*x));
    return out;
}

}  // namespace

TEST(SprdChecks, KnownValues) {
    const std::string nine = "123456789";
    EXPECT_EQ(Crc16Xmodem({reinterpret_cast<const std::uint8_t*>(nine.data()), nine.size()}), 0x31C3);
    EXPECT_EQ(LoaderSum(B({0, 0, 0, 0})), 0xFFFF);
    EXPECT_EQ(LoaderSum(B({0, 0x80, 0, 0})), 0xFF7F);
    // Odd bodies: the last byte as the high or the low half of its word, either byte order.
    const Bytes odd = B({0x12, 0x34, 0x56});
    const std::uint16_t high = LoaderSum(odd);
    EXPECT_EQ(high, static_cast<std::uint16_t>(~(0x1234 + 0x5600)));
    const std::uint16_t low = static_cast<std::uint16_t>(~(0x1234 + 0x56));
    for (std::uint16_t v :
         {high, low, std::uint16_t((high << 8) | (high >> 8)), std::uint16_t((low << 8) | (low >> 8))})
        EXPECT_TRUE(LoaderSumMatches(odd, v)) << std::hex << v;
    EXPECT_TRUE(LoaderSumMatches(B({0x12, 0x34}), 0xEDCB));
    EXPECT_FALSE(LoaderSumMatches(B({0x12, 0x34}), 0xCBED));  // an even body has one byte order
}

TEST(SprdFrames, EncodeTable) {
    struct Row {
        const char* what;
        std::uint16_t type;
        Bytes payload;
        Check check;
        bool escape;
        Bytes wire;
    };
    const std::vector<Row> rows = {
        {"loader CONNECT", 0x00, {}, Check::LOADER_SUM, true, B({0x7e, 0, 0, 0, 0, 0xff, 0xff, 0x7e})},
        {"loader ACK", 0x80, {}, Check::LOADER_SUM, true, B({0x7e, 0, 0x80, 0, 0, 0xff, 0x7f, 0x7e})},
        {"flag and escape escaped", 0x02, B({0x7e, 0x7d}), Check::LOADER_SUM, true,
         B({0x7e, 0, 2, 0, 2, 0x7d, 0x5e, 0x7d, 0x5d, 0x81, 0x7d, 0x5e, 0x7e})},
        {"transcode off: raw", 0x02, B({0x7e, 0x7d}), Check::LOADER_SUM, false,
         B({0x7e, 0, 2, 0, 2, 0x7e, 0x7d, 0x81, 0x7e, 0x7e})},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(EncodeFrame(r.type, r.payload, r.check, r.escape), r.wire) << r.what;
        FrameDecoder d(r.check);
        d.SetEscaping(r.escape);
        for (std::size_t piece : {std::size_t{0}, std::size_t{1}}) {
            auto got = DecodeAll(d, r.wire, piece);
            ASSERT_EQ(got.size(), 1u) << r.what;
            EXPECT_EQ(got[0].kind, Decoded::FRAME) << r.what;
            EXPECT_EQ(got[0].frame.type, r.type) << r.what;
            EXPECT_EQ(got[0].frame.payload, r.payload) << r.what;
        }
    }
}

TEST(SprdFrames, DecoderFaultsAndResync) {
    const Bytes ack = EncodeFrame(0x80, {}, Check::BOOT_ROM_CRC, true);
    struct Row {
        const char* what;
        Bytes wire;
        std::vector<Decoded::Kind> kinds;
    };
    Bytes badCheck = ack;
    badCheck[5] ^= 1;
    Bytes lone = B({0x7e, 0x7e});
    lone.insert(lone.end(), ack.begin(), ack.end());
    Bytes garbage = B({1, 2, 3});
    garbage.insert(garbage.end(), ack.begin(), ack.end());
    Bytes cut = B({0x7e, 0x00, 0x80, 0x00});
    cut.insert(cut.end(), ack.begin(), ack.end());
    const std::vector<Row> rows = {
        {"lone flags skipped", lone, {Decoded::FRAME}},
        {"garbage before a frame", garbage, {Decoded::GARBAGE, Decoded::FRAME}},
        {"bad check value", badCheck, {Decoded::BAD_CHECK}},
        {"bad escape", B({0x7e, 0x7d, 0x11, 0x7e}), {Decoded::BAD_ESCAPE}},
        {"frame cut by the next", cut, {Decoded::BAD_END, Decoded::FRAME}},
        {"no closing flag", B({0x7e, 0, 0x80, 0, 0, 0x5f, 0xe8, 0x01}), {Decoded::BAD_END}},
        {"trailing garbage", B({9, 9}), {Decoded::GARBAGE}},
    };
    for (const auto& r : rows) {
        FrameDecoder d(Check::BOOT_ROM_CRC);
        auto got = DecodeAll(d, r.wire);
        std::vector<Decoded::Kind> kinds;
        for (auto& g : got) kinds.push_back(g.kind);
        EXPECT_EQ(kinds, r.kinds) << r.what;
    }
}

TEST(SprdFrames, DetectTellsTheStageAndLengthDecidesTheEnd) {
    FrameDecoder d(Check::DETECT);
    const Bytes ver = B({'S', 'P', 'R', 'D', '3', 0});
    auto boot = DecodeAll(d, EncodeFrame(0x81, ver, Check::BOOT_ROM_CRC, true));
    ASSERT_EQ(boot.size(), 1u);
    EXPECT_EQ(boot[0].matched, Check::BOOT_ROM_CRC);
    auto loader = DecodeAll(d, EncodeFrame(0x81, ver, Check::LOADER_SUM, true));
    ASSERT_EQ(loader.size(), 1u);
    EXPECT_EQ(loader[0].matched, Check::LOADER_SUM);

    // Without escaping a payload full of flags is still one frame.
    Bytes flags(4096, 0x7e);
    d.SetEscaping(false);
    d.SetCheck(Check::LOADER_SUM);
    auto raw = DecodeAll(d, EncodeFrame(0x02, flags, Check::LOADER_SUM, false), 7);
    ASSERT_EQ(raw.size(), 1u);
    EXPECT_EQ(raw[0].frame.payload, flags);
}
