// The technician's tool, run as a program: exit codes, messages and JSON.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>

#include "platform/ExeDir.h"
#include "support/PacWriter.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

struct Result {
    int exitCode;
    std::string out;
};

Result RunTool(const std::string& args) {
    const std::string tool = platform::ExeDir() + "../tools/quorvel-pac/quorvel-pac";
    FILE* p = ::popen((tool + " --no-progress " + args + " 2>&1").c_str(), "r");
    Result r{-1, {}};
    if (!p) return r;
    std::array<char, 4096> buf;
    while (std::size_t n = std::fread(buf.data(), 1, buf.size(), p)) r.out.append(buf.data(), n);
    const int status = ::pclose(p);
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

TEST(QuorvelPacTool, GoodPackagePassesEveryCommandBadInputExitsNonZero) {
    TempDir dir;
    WritePac(dir.File("fw.pac"), TypicalSprdPac());
    const auto list = RunTool("list --json " + dir.File("fw.pac"));
    EXPECT_EQ(list.exitCode, 0) << list.out;
    EXPECT_EQ(list.out.front(), '{');
    EXPECT_NE(list.out.find("system.img"), std::string::npos);
    EXPECT_NE(list.out.find("SC9863A"), std::string::npos);
    EXPECT_EQ(RunTool("verify " + dir.File("fw.pac")).exitCode, 0);
    EXPECT_EQ(RunTool("plan " + dir.File("fw.pac")).exitCode, 0);
    const auto extract = RunTool("extract " + dir.File("fw.pac") + " " + dir.File("out"));
    ASSERT_EQ(extract.exitCode, 0) << extract.out;
    int files = 0;
    for (auto& e : std::filesystem::recursive_directory_iterator(dir.File("out"))) files += e.is_regular_file();
    EXPECT_EQ(files, 6) << "the unnamed entry is dropped";

    PacSpec bad = TypicalSprdPac();
    bad.badDataCrc = true;
    WritePac(dir.File("bad.pac"), bad);
    const auto verify = RunTool("verify " + dir.File("bad.pac"));
    EXPECT_EQ(verify.exitCode, 1);
    EXPECT_NE(verify.out.find("CRC"), std::string::npos) << verify.out;
    dir.Write("short.pac", "PAC?");
    EXPECT_EQ(RunTool("list " + dir.File("short.pac")).exitCode, 1);
    const auto missing = RunTool("list " + dir.File("none.pac"));
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.out.find("Can not open file"), std::string::npos);
    EXPECT_EQ(RunTool("frobnicate").exitCode, 2);
    EXPECT_EQ(RunTool("").exitCode, 2);
}

}  // namespace
}  // namespace quorvel::test
