// SHA-256 with known digests (the phone's report); the other check values are rows of
// tests/sprd/dialogues/frames.txt.
#include <gtest/gtest.h>

#include <vector>

#include "engines/sprd/Sha256.h"

using namespace quorvel::sprd;
using Bytes = std::vector<std::uint8_t>;

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
