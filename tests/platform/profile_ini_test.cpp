#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/ProfileIni.h"
#include "support/TempDir.h"
#include "support/Unprivileged.h"

namespace quorvel::platform {
namespace {

using test::TempDir;

TEST(ProfileIniRead, MissingFileSectionOrKeyGivesTheDefault) {
    TempDir dir;
    EXPECT_EQ(ProfileIni::ReadString(dir.File("none.ini"), "A", "k", "dflt \t", 64), "dflt");
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
        {"nameless_first_section", "k=1\n[S]\n", "", "k", true, "1"},
        {"lone_cr_lines", "[S]\rk=1\rj=2\r", "S", "j", true, "2"},
        // No comments, and a header needs its bracket, as in the platform's reader.
        {"semicolon_key", odd, "S", ";k", true, "commented"},
        {"bracket_key", "[S]\n[k=1\n", "S", "[k", true, "1"},
        {"unclosed_header", "[A]\n[B\nj=2\n", "B", "j", false, ""},
        {"unclosed_header_section", "[A]\n[B\nj=2\n", "A", "j", true, "2"},
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
    EXPECT_EQ(ProfileIni::ReadStringFrom("[S]\n", "S", "k", " d e  ", 64), " d e");
    EXPECT_EQ(ProfileIni::ReadStringFrom("[S]\nk=abc\n", "S", "k", "", 0), "");
}

TEST(ProfileIniRead, IntegersConvertAsThePlatformReadersDo) {
    const std::string zeros(28, '0');
    // The integer reader: prefixes in lower case only, a 30-character buffer, modulo 2^32.
    for (auto [v, expected] : {std::pair<std::string, std::uint32_t>{"12", 12u},
                               {"  12abc", 12u},
                               {"abc", 0u},
                               {"", 99u},
                               {"-5", 4294967291u},
                               {"\"-1\"", 0xFFFFFFFFu},
                               {"+7", 7u},
                               {"0x1F", 31u},
                               {"0X1F", 0u},
                               {"0o17", 15u},
                               {"0b101", 5u},
                               {"99999999999999", 276447231u},
                               {"4294967297", 1u},
                               {zeros + "7", 7u},
                               {zeros + "07", 0u}})
        EXPECT_EQ(ProfileIni::ReadIntFrom("[S]\nk=" + v + "\n", "S", "k", 99), expected) << v;
    // Option values: decimal only, modulo 2^32 too.
    for (auto [v, expected] :
         {std::pair{"abc", 0u}, {"  10000ms", 10000u}, {"-1", 0xFFFFFFFFu}, {"4294967297", 1u}, {"0x10", 0u}})
        EXPECT_EQ(ParseUnsigned(v), expected) << v;
}

TEST(ProfileIniWrite, ReplacesInPlaceOrAppendsAndKeepsEverythingElse) {
    const std::string twoSections = "[A]\r\na=1\r\n\r\n[B]\r\nb=2";
    const struct {
        const char* label;
        std::string before;
        const char *section, *key;
        std::string value;
        std::string after;
    } rows[] = {
        {"replace", "; note\r\n[COMMON]\r\nA = 1 ; not a comment\r\nLANGUAGE=2052\r\n\r\n[OTHER]\r\nx=y\r\n", "common",
         "language", "1033", "; note\r\n[COMMON]\r\nA = 1 ; not a comment\r\nLANGUAGE=1033\r\n\r\n[OTHER]\r\nx=y\r\n"},
        {"key_at_section_end", twoSections, "A", "new", "v", "[A]\r\na=1\r\nnew=v\r\n\r\n[B]\r\nb=2"},
        {"key_after_unended_line", twoSections, "B", "c", "3", "[A]\r\na=1\r\n\r\n[B]\r\nb=2\r\nc=3\r\n"},
        {"section_at_end", "[A]\r\na=1\r\n", "C", "d", "4", "[A]\r\na=1\r\n[C]\r\nd=4\r\n"},
        {"empty_file", "", "S", "k", "v", "[S]\nk=v\n"},
        {"duplicates_and_bom", "\xEF\xBB\xBF[S]\nk=1\n[S]\nk=2\n", "S", "k", "9", "\xEF\xBB\xBF[S]\nk=9\n[S]\nk=2\n"},
        {"lone_cr_file", "[A]\ra=1\r", "A", "b", "2", "[A]\ra=1\rb=2\r"},
        {"nameless_section", "; top\nk=1\n[S]\n", "", "j", "2", "; top\nk=1\nj=2\n[S]\n"},
        {"semicolon_key", "[S]\n;k=1\n", "S", ";k", "2", "[S]\n;k=2\n"},
        {"unclosed_header", "[A]\n[B\n", "B", "k", "1", "[A]\n[B\n[B]\nk=1\n"},
        // No value may add lines or sections: breaks become blanks, a NUL ends the text.
        {"line_breaks", "[COM]\nIndex0=NA\n", "COM", "Index0", "Phone\r\n[COMMON]\nMac=x (COM3)",
         "[COM]\nIndex0=Phone  [COMMON] Mac=x (COM3)\n"},
        {"nul", "", "S", "k", std::string("a\0\nb", 4), "[S]\nk=a\n"},
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

// A file the writer may not read or write, or a folder it may not write, stays as it
// was; an unreadable file is never taken for an empty one.
TEST(ProfileIniWrite, FilesThatCannotBeWrittenStayAsTheyWere) {
    const struct {
        const char* label;
        mode_t folder, file;
    } rows[] = {
        {"read_only_folder", 0555, 0666},
        {"read_only_file", 0777, 0444},
        {"unreadable_file", 0777, 0200},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        TempDir dir;
        dir.Write("c/a.ini", "[S]\nk=1\n[MEMORYTEST]\nDataBus=0\n");
        ::chmod(dir.Path().c_str(), 0755);
        ::chmod(dir.File("c").c_str(), row.folder);
        ::chmod(dir.File("c/a.ini").c_str(), row.file);
        const int refused = test::RunUnprivileged([&] {
            return !ProfileIni::WriteString(dir.File("c/a.ini"), "S", "k", "2") &&
                           !ProfileIni::WriteMany(dir.File("c/a.ini"), {{"T", "k", "3"}})
                       ? 0
                       : 1;
        });
        ::chmod(dir.File("c").c_str(), 0755);
        ::chmod(dir.File("c/a.ini").c_str(), 0644);
        EXPECT_EQ(refused, 0);
        EXPECT_EQ(dir.Read("c/a.ini"), "[S]\nk=1\n[MEMORYTEST]\nDataBus=0\n");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.File("c")), {}), 1);
    }
}

// Reads share one parse per change: a change by another program is seen, even of the same size.
TEST(ProfileIniRead, AChangedFileIsReadAgain) {
    TempDir dir;
    const auto path = dir.File("a.ini");
    dir.Write("a.ini", "[S]\nk=1\n");
    EXPECT_EQ(ProfileIni::ReadInt(path, "S", "k", 0), 1u);
    dir.Write("a.ini", "[S]\nk=2\n");
    const timespec later[2] = {{0, UTIME_OMIT}, {2000000000, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), later, 0);
    EXPECT_EQ(ProfileIni::ReadInt(path, "S", "k", 0), 2u);
    ASSERT_TRUE(ProfileIni::WriteString(path, "S", "k", "3"));
    EXPECT_EQ(ProfileIni::ReadInt(path, "S", "k", 0), 3u);
    ::unlink(path.c_str());
    EXPECT_EQ(ProfileIni::ReadInt(path, "S", "k", 0), 0u);
}

}  // namespace
}  // namespace quorvel::platform
