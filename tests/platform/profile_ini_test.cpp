#include "platform/ProfileIni.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TempDir.h"
#include "support/Unprivileged.h"

namespace quorvel::platform {
namespace {

using test::TempDir;

TEST(ProfileIniRead, MissingFileSectionOrKeyGivesTheDefault) {
    TempDir dir;
    EXPECT_EQ(ProfileIni::ReadString(dir.File("none.ini"), "A", "k", "dflt", 64), "dflt");
    dir.Write("a.ini", "[A]\nk=1\n");
    EXPECT_EQ(ProfileIni::ReadString(dir.File("a.ini"), "B", "k", "dflt", 64), "dflt");
    EXPECT_EQ(ProfileIni::ReadString(dir.File("a.ini"), "A", "x", "dflt", 64), "dflt");
    EXPECT_EQ(ProfileIni::ReadInt(dir.File("a.ini"), "A", "x", 7), 7u);
}

TEST(ProfileIniRead, NamesAreCaseInsensitiveAndBlanksTrimmed) {
    auto [found, v] = ProfileIni::Lookup("  [ Common ]  \r\n  Sleep Time  =   42 ms  \r\n", "COMMON", "sleep time");
    EXPECT_TRUE(found);
    EXPECT_EQ(v, "42 ms");
}

TEST(ProfileIniRead, OnePairOfMatchingQuotesIsRemoved) {
    const char* file = "[S]\na=\"x y\"\nb='q'\nc=\"\"z\"\"\nd=\"unbalanced\ne=\"\n";
    EXPECT_EQ(ProfileIni::Lookup(file, "S", "a").second, "x y");
    EXPECT_EQ(ProfileIni::Lookup(file, "S", "b").second, "q");
    EXPECT_EQ(ProfileIni::Lookup(file, "S", "c").second, "\"z\"");
    EXPECT_EQ(ProfileIni::Lookup(file, "S", "d").second, "\"unbalanced");
    EXPECT_EQ(ProfileIni::Lookup(file, "S", "e").second, "\"");
}

TEST(ProfileIniRead, ValueIsCutToTheBuffer) {
    EXPECT_EQ(ProfileIni::ReadStringFrom("[S]\nk=abcdefgh\n", "S", "k", "", 4), "abc");
    EXPECT_EQ(ProfileIni::ReadStringFrom("[S]\n", "S", "k", "defaultvalue", 5), "defa");
    EXPECT_EQ(ProfileIni::ReadStringFrom("[S]\nk=abc\n", "S", "k", "", 0), "");
}

TEST(ProfileIniRead, FirstSectionAndFirstKeyWin) {
    const char* file = "[S]\nk=1\nk=2\n[T]\nk=3\n[s]\nk=4\nonly=5\n";
    EXPECT_EQ(ProfileIni::Lookup(file, "S", "k").second, "1");
    EXPECT_FALSE(ProfileIni::Lookup(file, "S", "only").first);
    EXPECT_EQ(ProfileIni::Lookup(file, "T", "k").second, "3");
}

TEST(ProfileIniRead, CrlfBomCommentsAndOddBytes) {
    std::string file = "\xEF\xBB\xBF[S]\r\n;k=commented\r\nk=\xFF\xFE\x80 raw\r\nno equals sign\r\n";
    EXPECT_EQ(ProfileIni::Lookup(file, "S", "k").second, "\xFF\xFE\x80 raw");
    EXPECT_FALSE(ProfileIni::Lookup(file, "S", "no equals sign").first);
    EXPECT_FALSE(ProfileIni::Lookup("k=1\n[S]\n", "S", "k").first) << "keys before any section belong to none";
}

TEST(ProfileIniReadInt, ConvertsAsTheIntegerReaderDoes) {
    auto read = [](const char* v) {
        return ProfileIni::ReadIntFrom(std::string("[S]\nk=") + v + "\n", "S", "k", 99);
    };
    EXPECT_EQ(read("12"), 12u);
    EXPECT_EQ(read("  12abc"), 12u);
    EXPECT_EQ(read("abc"), 0u);
    EXPECT_EQ(read(""), 99u);
    EXPECT_EQ(read("-5"), 0u);
    EXPECT_EQ(read("0x1F"), 31u);
    EXPECT_EQ(read("+7"), 7u);
    EXPECT_EQ(read("99999999999999"), 0xFFFFFFFFu);
}

TEST(ParseUnsignedTest, ConvertsLikeA32BitStrtoul) {
    EXPECT_EQ(ParseUnsigned("abc"), 0u);
    EXPECT_EQ(ParseUnsigned("  10000ms"), 10000u);
    EXPECT_EQ(ParseUnsigned("-1"), 0xFFFFFFFFu);
    EXPECT_EQ(ParseUnsigned("4294967296"), 0xFFFFFFFFu);
    EXPECT_EQ(ParseUnsigned("0x10"), 0u) << "decimal only";
}

TEST(ProfileIniWrite, ReplacesOneValueAndKeepsEverythingElse) {
    const std::string before =
        "; station settings\r\n[COMMON]\r\nA = 1 ; not a comment\r\nLANGUAGE=2052\r\n\r\n[OTHER]\r\nx=y\r\n";
    const std::string after = ProfileIni::Apply(before, "common", "language", "1033");
    EXPECT_EQ(after, "; station settings\r\n[COMMON]\r\nA = 1 ; not a comment\r\nLANGUAGE=1033\r\n\r\n[OTHER]\r\nx=y\r\n");
}

TEST(ProfileIniWrite, AddsKeyAtTheEndOfItsSectionAndSectionAtTheEnd) {
    std::string s = "[A]\r\na=1\r\n\r\n[B]\r\nb=2";
    s = ProfileIni::Apply(s, "A", "new", "v");
    EXPECT_EQ(s, "[A]\r\na=1\r\nnew=v\r\n\r\n[B]\r\nb=2");
    s = ProfileIni::Apply(s, "B", "c", "3");
    EXPECT_EQ(s, "[A]\r\na=1\r\nnew=v\r\n\r\n[B]\r\nb=2\r\nc=3\r\n");
    s = ProfileIni::Apply(s, "C", "d", "4");
    EXPECT_EQ(s, "[A]\r\na=1\r\nnew=v\r\n\r\n[B]\r\nb=2\r\nc=3\r\n[C]\r\nd=4\r\n");
    EXPECT_EQ(ProfileIni::Apply("", "S", "k", "v"), "[S]\nk=v\n");
    // A last line ending in a lone CR is no line ending to copy.
    EXPECT_EQ(ProfileIni::Lookup(ProfileIni::Apply("x=1\r", "S", "k", "v"), "S", "k").second, "v");
}

TEST(ProfileIniWrite, DuplicatesAndBomAreLeftAlone) {
    std::string s = "\xEF\xBB\xBF[S]\nk=1\n[S]\nk=2\n";
    s = ProfileIni::Apply(s, "S", "k", "9");
    EXPECT_EQ(s, "\xEF\xBB\xBF[S]\nk=9\n[S]\nk=2\n");
    EXPECT_EQ(ProfileIni::Lookup(s, "S", "k").second, "9");
}

TEST(ProfileIniWrite, CreatesTheFileAndReadsBack) {
    TempDir dir;
    const auto path = dir.File("new.ini");
    ASSERT_TRUE(ProfileIni::WriteString(path, "total", "NUM", "5"));
    ASSERT_TRUE(ProfileIni::WriteMany(path, {{"fail", "NUM", "1"}, {"total", "NUM", "6"}}));
    EXPECT_EQ(dir.Read("new.ini"), "[total]\nNUM=6\n[fail]\nNUM=1\n");
    EXPECT_EQ(ProfileIni::ReadInt(path, "TOTAL", "num", 0), 6u);
}

TEST(ProfileIniWrite, ReadOnlyFolderFailsWithoutDamage) {
    TempDir dir;
    dir.Write("ro/a.ini", "[S]\nk=1\n");
    ::chmod(dir.Path().c_str(), 0755);
    ::chmod(dir.File("ro").c_str(), 0555);
    ::chmod(dir.File("ro/a.ini").c_str(), 0666);
    const int refused = test::RunUnprivileged([&] { return ProfileIni::WriteString(dir.File("ro/a.ini"), "S", "k", "2") ? 0 : 1; });
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(dir.Read("ro/a.ini"), "[S]\nk=1\n");
}

TEST(ProfileIniWrite, MissingFolderFails) {
    TempDir dir;
    EXPECT_FALSE(ProfileIni::WriteString(dir.File("no/such/a.ini"), "S", "k", "2"));
}

}  // namespace
}  // namespace quorvel::platform
