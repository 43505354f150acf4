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

TEST(ProfileIniRead, LookupRules) {
    const std::string quotes = "[S]\na=\"x y\"\nb='q'\nc=\"\"z\"\"\nd=\"unbalanced\ne=\"\n";
    const std::string dups = "[S]\nk=1\nk=2\n[T]\nk=3\n[s]\nk=4\nonly=5\n";
    const std::string odd = "\xEF\xBB\xBF[S]\r\n;k=commented\r\nk=\xFF\xFE\x80 raw\r\nno equals sign\r\n";
    const struct {
        const char* label;
        std::string file;
        const char *section, *key;
        bool found;
        std::string value;
    } rows[] = {
        {"case_and_blanks", "  [ Common ]  \r\n  Sleep Time  =   42 ms  \r\n", "COMMON", "sleep time", true, "42 ms"},
        {"double_quotes", quotes, "S", "a", true, "x y"},
        {"single_quotes", quotes, "S", "b", true, "q"},
        {"one_pair_only", quotes, "S", "c", true, "\"z\""},
        {"unbalanced", quotes, "S", "d", true, "\"unbalanced"},
        {"lone_quote", quotes, "S", "e", true, "\""},
        {"first_key_wins", dups, "S", "k", true, "1"},
        {"first_section_wins", dups, "S", "only", false, ""},
        {"later_section", dups, "T", "k", true, "3"},
        {"bom_crlf_comment_raw_bytes", odd, "S", "k", true, "\xFF\xFE\x80 raw"},
        {"line_without_equals", odd, "S", "no equals sign", false, ""},
        {"key_before_any_section", "k=1\n[S]\n", "S", "k", false, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        const auto [found, value] = ProfileIni::Lookup(row.file, row.section, row.key);
        EXPECT_EQ(found, row.found);
        EXPECT_EQ(value, row.value);
    }
}

TEST(ProfileIniRead, ValueIsCutToTheBuffer) {
    EXPECT_EQ(ProfileIni::ReadStringFrom("[S]\nk=abcdefgh\n", "S", "k", "", 4), "abc");
    EXPECT_EQ(ProfileIni::ReadStringFrom("[S]\n", "S", "k", "defaultvalue", 5), "defa");
    EXPECT_EQ(ProfileIni::ReadStringFrom("[S]\nk=abc\n", "S", "k", "", 0), "");
}

TEST(ProfileIniRead, IntegersConvertAsTheIntegerReaderAndA32BitStrtoulDo) {
    for (auto [v, expected] : {std::pair{"12", 12u}, {"  12abc", 12u}, {"abc", 0u}, {"", 99u}, {"-5", 0u},
                               {"0x1F", 31u}, {"+7", 7u}, {"99999999999999", 0xFFFFFFFFu}})
        EXPECT_EQ(ProfileIni::ReadIntFrom(std::string("[S]\nk=") + v + "\n", "S", "k", 99), expected) << v;
    // Decimal only, and negatives wrap.
    for (auto [v, expected] : {std::pair{"abc", 0u}, {"  10000ms", 10000u}, {"-1", 0xFFFFFFFFu},
                               {"4294967296", 0xFFFFFFFFu}, {"0x10", 0u}})
        EXPECT_EQ(ParseUnsigned(v), expected) << v;
}

TEST(ProfileIniWrite, ReplacesInPlaceOrAppendsAndKeepsEverythingElse) {
    const std::string twoSections = "[A]\r\na=1\r\n\r\n[B]\r\nb=2";
    const struct {
        const char* label;
        std::string before;
        const char *section, *key, *value;
        std::string after;
    } rows[] = {
        {"replace", "; note\r\n[COMMON]\r\nA = 1 ; not a comment\r\nLANGUAGE=2052\r\n\r\n[OTHER]\r\nx=y\r\n", "common",
         "language", "1033", "; note\r\n[COMMON]\r\nA = 1 ; not a comment\r\nLANGUAGE=1033\r\n\r\n[OTHER]\r\nx=y\r\n"},
        {"key_at_section_end", twoSections, "A", "new", "v", "[A]\r\na=1\r\nnew=v\r\n\r\n[B]\r\nb=2"},
        {"key_after_unended_line", twoSections, "B", "c", "3", "[A]\r\na=1\r\n\r\n[B]\r\nb=2\r\nc=3\r\n"},
        {"section_at_end", "[A]\r\na=1\r\n", "C", "d", "4", "[A]\r\na=1\r\n[C]\r\nd=4\r\n"},
        {"empty_file", "", "S", "k", "v", "[S]\nk=v\n"},
        {"duplicates_and_bom", "\xEF\xBB\xBF[S]\nk=1\n[S]\nk=2\n", "S", "k", "9", "\xEF\xBB\xBF[S]\nk=9\n[S]\nk=2\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        EXPECT_EQ(ProfileIni::Apply(row.before, row.section, row.key, row.value), row.after);
    }
    // A last line ending in a lone CR is no line ending to copy.
    EXPECT_EQ(ProfileIni::Lookup(ProfileIni::Apply("x=1\r", "S", "k", "v"), "S", "k").second, "v");
}

TEST(ProfileIniWrite, CreatesTheFileAndReadsBackButNeedsItsFolder) {
    TempDir dir;
    const auto path = dir.File("new.ini");
    ASSERT_TRUE(ProfileIni::WriteString(path, "total", "NUM", "5"));
    ASSERT_TRUE(ProfileIni::WriteMany(path, {{"fail", "NUM", "1"}, {"total", "NUM", "6"}}));
    EXPECT_EQ(dir.Read("new.ini"), "[total]\nNUM=6\n[fail]\nNUM=1\n");
    EXPECT_EQ(ProfileIni::ReadInt(path, "TOTAL", "num", 0), 6u);
    EXPECT_FALSE(ProfileIni::WriteString(dir.File("no/such/a.ini"), "S", "k", "2"));
}

TEST(ProfileIniWrite, ReadOnlyFolderFailsWithoutDamage) {
    TempDir dir;
    dir.Write("ro/a.ini", "[S]\nk=1\n");
    ::chmod(dir.Path().c_str(), 0755);
    ::chmod(dir.File("ro").c_str(), 0555);
    ::chmod(dir.File("ro/a.ini").c_str(), 0666);
    const int refused =
        test::RunUnprivileged([&] { return ProfileIni::WriteString(dir.File("ro/a.ini"), "S", "k", "2") ? 0 : 1; });
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(dir.Read("ro/a.ini"), "[S]\nk=1\n");
}

}  // namespace
}  // namespace quorvel::platform
