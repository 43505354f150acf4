// The checks without extraction that the technicians' tool shows: header and table
// reading, both CRCs by streaming, and the table the station hands on.
#include <gtest/gtest.h>

#include "app/Texts.h"
#include "packages/BinPack.h"
#include "packages/PacInspect.h"
#include "support/PacWriter.h"
#include "support/TempDir.h"

using namespace quorvel;
using namespace quorvel::packages;
using quorvel::test::PacSpec;

namespace {

TEST(PacInspect, VerifiesBothCrcsAndCatchesDamageAndCuts) {
    test::TempDir dir;
    PacSpec layout;
    layout.entries = {{"A", "a", std::string(kPacChunkSize + 10, 'a')}, {"", "cfg", "c"}};
    test::WritePac(dir.File("good.pac"), layout);
    PacVerification v;
    std::string message;
    std::vector<int> progress;
    ASSERT_TRUE(VerifyPac(dir.File("good.pac"), v, message, [&](int p) { progress.push_back(p); }));
    EXPECT_TRUE(v.crcPresent && v.headerCrcOk && v.dataCrcOk && v.dataComplete);
    EXPECT_EQ(v.dataBytes, kPacChunkSize + 11);
    EXPECT_EQ(progress.back(), 100);
    EXPECT_GE(progress.size(), 3u);

    layout.tweakBytes = [](std::string& b) { b[b.size() - 100] ^= 0x40; };
    test::WritePac(dir.File("flipped.pac"), layout);
    EXPECT_FALSE(VerifyPac(dir.File("flipped.pac"), v, message));
    EXPECT_EQ(message, app::texts::kPacCrcError);
    EXPECT_TRUE(v.dataComplete);

    // No CRCs, and the last entry claims more than the file holds.
    layout.withCrc = false;
    layout.tweakBytes = {};
    layout.tweak = [](PacHeader&, std::vector<PacFileEntry>& t) { t[1].FileSize = 50; };
    test::WritePac(dir.File("cut.pac"), layout);
    EXPECT_FALSE(VerifyPac(dir.File("cut.pac"), v, message));
    EXPECT_EQ(message, app::texts::kPacReadFailed);
    EXPECT_FALSE(v.dataComplete);

    EXPECT_FALSE(VerifyPac(dir.File("none.pac"), v, message));
    EXPECT_EQ(message, "Can not open file [" + dir.File("none.pac") + "]\n");
}

TEST(PacInspect, ContentsAndTheTableHandedOn) {
    test::TempDir dir;
    PacSpec layout = test::TypicalSprdPac();
    layout.entries.push_back({"", "extra.cfg", "x"});
    test::WritePac(dir.File("p.pac"), layout);
    PacContents c;
    std::string message;
    ASSERT_TRUE(ReadPacContents(dir.File("p.pac"), c, message)) << message;
    EXPECT_EQ(c.table.size(), 8u);
    EXPECT_EQ(HandedOnCount(c.table), 6u);  // two unnamed entries with data

    dir.Write("small.pac", std::string(100, 'x'));
    EXPECT_FALSE(ReadPacContents(dir.File("small.pac"), c, message));
    EXPECT_EQ(message, app::texts::kPacTooSmall);
}

}  // namespace
