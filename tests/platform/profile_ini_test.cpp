#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "platform/ProfileIni.h"
#include "support/TableFile.h"
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

// Lookup, cut values, integers and in-place writes: tests/tables/profile-ini.txt.
TEST(ProfileIni, TableOfReadsAndWrites) {
    const std::map<std::string, std::size_t> arity{
        {"lookup", 6}, {"read", 8}, {"int", 4}, {"unsigned", 4}, {"apply", 7}};
    for (const auto& row : test::ReadTable("profile-ini.txt")) {
        SCOPED_TRACE(row.where);
        const auto& w = row.words;
        const auto n = arity.find(w[0]);
        ASSERT_TRUE(n != arity.end() && w.size() == n->second && w[w.size() - 2] == "->");
        std::string got;
        if (w[0] == "lookup") {
            const auto [found, value] = ProfileIni::Lookup(w[1], w[2], w[3]);
            got = found ? value : "(missing)";
        } else if (w[0] == "read") {
            got = ProfileIni::ReadStringFrom(w[1], w[2], w[3], w[4], std::stoul(w[5]));
        } else if (w[0] == "int") {
            got = std::to_string(ProfileIni::ReadIntFrom("[S]\nk=" + w[1] + "\n", "S", "k", 99));
        } else if (w[0] == "unsigned") {
            got = std::to_string(ParseUnsigned(w[1]));
        } else {
            got = ProfileIni::Apply(w[1], w[2], w[3], w[4]);
        }
        EXPECT_EQ(got, w.back());
    }
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
