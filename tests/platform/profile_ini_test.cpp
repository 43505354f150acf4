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

// Lookup, cut values, integers, in-place writes and files: tests/tables/profile-ini.txt.
TEST(ProfileIni, TableOfReadsAndWrites) {
    const std::map<std::string, std::size_t> arity{
        {"lookup", 6}, {"read", 8}, {"int", 4},   {"unsigned", 4}, {"apply", 7}, {"put", 6},   {"get", 7},
        {"getint", 7}, {"set", 7},  {"set2", 10}, {"text", 4},     {"drop", 4},  {"locked", 5}};
    TempDir dir;
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
        } else if (w[0] == "apply") {
            got = ProfileIni::Apply(w[1], w[2], w[3], w[4]);
        } else if (w[0] == "put") {
            dir.Write(w[1], w[2]);
            const timespec at[2] = {{0, UTIME_OMIT}, {std::stol(w[3]), 0}};
            ::utimensat(AT_FDCWD, dir.File(w[1]).c_str(), at, 0);
        } else if (w[0] == "get") {
            got = ProfileIni::ReadString(dir.File(w[1]), w[2], w[3], w[4], 64);
        } else if (w[0] == "getint") {
            got = std::to_string(ProfileIni::ReadInt(dir.File(w[1]), w[2], w[3], std::stoul(w[4])));
        } else if (w[0] == "set" || w[0] == "set2") {
            const bool ok = w[0] == "set"
                                ? ProfileIni::WriteString(dir.File(w[1]), w[2], w[3], w[4])
                                : ProfileIni::WriteMany(dir.File(w[1]), {{w[2], w[3], w[4]}, {w[5], w[6], w[7]}});
            got = ok ? "ok" : "refused";
        } else if (w[0] == "locked") {
            dir.Write("c/a.ini", "[S]\nk=1\n[MEMORYTEST]\nDataBus=0\n");
            ::chmod(dir.Path().c_str(), 0755);
            ::chmod(dir.File("c").c_str(), std::stoul(w[1], nullptr, 8));
            ::chmod(dir.File("c/a.ini").c_str(), std::stoul(w[2], nullptr, 8));
            const int wrote = test::RunUnprivileged([&] {
                return ProfileIni::WriteString(dir.File("c/a.ini"), "S", "k", "2") +
                       ProfileIni::WriteMany(dir.File("c/a.ini"), {{"T", "k", "3"}});
            });
            ::chmod(dir.File("c").c_str(), 0755);
            ::chmod(dir.File("c/a.ini").c_str(), 0644);
            const auto files = std::distance(std::filesystem::directory_iterator(dir.File("c")), {});
            got = std::to_string(wrote) + " written, " + std::to_string(files) + " file: " + dir.Read("c/a.ini");
        } else if (w[0] == "text") {
            got = dir.Read(w[1]);
        } else {
            ::unlink(dir.File(w[1]).c_str());
        }
        EXPECT_EQ(got, w.back());
    }
}

}  // namespace
}  // namespace quorvel::platform
