// The NV merge: the phone's calibration and IMEI carried into the package's image, and
// every case that cannot be done safely refused.
#include <gtest/gtest.h>

#include "engines/sprd/NvImage.h"
#include "engines/sprd/Scheme.h"

using namespace quorvel::sprd;
using Bytes = std::vector<std::uint8_t>;

TEST(SprdNv, MergeKeepsThePhonesItems) {
    const Bytes cal(37, 0xC1), imei{1, 2, 3, 4, 5, 6, 7, 8};
    const Bytes package = MakeNvImage({{2, Bytes(16, 0)}, {9, {9, 9}}}, 512);
    const Bytes phone = MakeNvImage({{2, cal}, {5, imei}, {9, {7}}});
    const std::vector<NvItemRef> keep{{"Calibration", 2}, {"IMEI", 5}, {"Missing", 0x77}};
    Bytes out;
    std::vector<std::string> notes;
    std::string error;
    ASSERT_TRUE(MergeNv(package, phone, keep, 0, out, notes, error)) << error;
    EXPECT_EQ(out.size(), 512u);
    EXPECT_TRUE(NvCrcValid(out));
    std::vector<NvItem> items;
    ASSERT_TRUE(ReadNvItems(out, items, error));
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].data, cal);            // replaced, other length
    EXPECT_EQ(items[1].data, (Bytes{9, 9}));  // not named: the package's
    EXPECT_EQ(items[2].id, 5);                // added
    EXPECT_EQ(items[2].data, imei);
    EXPECT_EQ(notes.size(), 3u);

    struct Row {
        const char* what;
        Bytes package, phone;
        std::size_t limit;
        const char* error;
    };
    Bytes badCrc = phone;
    badCrc[6] ^= 1;
    Bytes cut = MakeNvImage({{2, cal}});
    cut[6] = 0xF0;  // item length past the end
    {
        const std::uint16_t crc = NvCrc16(std::span<const std::uint8_t>(cut).subspan(2));
        cut[0] = static_cast<std::uint8_t>(crc >> 8);
        cut[1] = static_cast<std::uint8_t>(crc);
    }
    const std::vector<Row> rows = {
        {"backup fails its CRC", package, badCrc, 0, "fails its CRC"},
        {"blank phone", package, Bytes(64, 0xFF), 0, "fails its CRC"},
        {"backup item list broken", package, cut, 0, "runs past the image's end"},
        {"package image broken", Bytes{1, 2, 3}, phone, 0, "package's NV image is damaged"},
        {"merged image too big", package, phone, 256, "exceeds the NV partition (256 bytes)"},
    };
    for (const auto& r : rows) {
        std::string e;
        EXPECT_FALSE(MergeNv(r.package, r.phone, keep, r.limit, out, notes, e)) << r.what;
        EXPECT_NE(e.find(r.error), std::string::npos) << r.what << ": " << e;
    }
}
