// Check values with known answers: the frames' CRC-16 and loader sum, the NV image's CRC-16
// and byte sum, and SHA-256 (the phone's report).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engines/sprd/Frame.h"
#include "engines/sprd/NvImage.h"
#include "engines/sprd/Sha256.h"

using namespace quorvel::sprd;
using Bytes = std::vector<std::uint8_t>;

TEST(SprdChecks, KnownValues) {
    const std::string nine = "123456789";
    const Bytes b(nine.begin(), nine.end());
    EXPECT_EQ(Crc16Xmodem(b), 0x31C3);
    EXPECT_EQ(NvCrc16(b), 0xFEE8);  // polynomial 0x8005, initial 0, not reflected
    EXPECT_EQ(ByteSum(Bytes{0xFF, 0xFF, 2}), 0x200u);
    EXPECT_EQ(LoaderSum(Bytes{0, 0, 0, 0}), 0xFFFF);
    EXPECT_EQ(LoaderSum(Bytes{0, 0x80, 0, 0}), 0xFF7F);
    // Odd bodies: the last byte as the high or the low half of its word, either byte order.
    const Bytes odd = {0x12, 0x34, 0x56};
    const std::uint16_t high = LoaderSum(odd);
    EXPECT_EQ(high, static_cast<std::uint16_t>(~(0x1234 + 0x5600)));
    const std::uint16_t low = static_cast<std::uint16_t>(~(0x1234 + 0x56));
    for (std::uint16_t v :
         {high, low, std::uint16_t((high << 8) | (high >> 8)), std::uint16_t((low << 8) | (low >> 8))})
        EXPECT_TRUE(LoaderSumMatches(odd, v)) << std::hex << v;
    EXPECT_TRUE(LoaderSumMatches(Bytes{0x12, 0x34}, 0xEDCB));
    EXPECT_FALSE(LoaderSumMatches(Bytes{0x12, 0x34}, 0xCBED));  // an even body has one byte order
}

TEST(SprdChecks, Sha256KnownDigests) {
    EXPECT_EQ(Sha256::HexOf(Bytes{'a', 'b', 'c'}), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(Sha256::HexOf({}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    const Bytes million(1000000, 'a');
    EXPECT_EQ(Sha256::HexOf(million), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    // Streamed in uneven pieces, across block boundaries.
    Sha256 s;
    for (std::size_t i = 0; i < million.size(); i += 63)
        s.Update(std::span<const std::uint8_t>(million).subspan(i, std::min<std::size_t>(63, million.size() - i)));
    EXPECT_EQ(s.Hex(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}
