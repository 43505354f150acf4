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

TEST(QuorvelPacTool, GoodPackagePassesEveryCommandBadInputExitsNonZero) {
    TempDir dir;
    WritePac(dir.File("fw.pac"), TypicalSprdPac());
    PacSpec bad = TypicalSprdPac();
    bad.badDataCrc = true;
    WritePac(dir.File("bad.pac"), bad);
    const struct {
        std::string args;
        int exitCode;
        std::vector<const char*> shown;
    } rows[] = {
        {"list --json " + dir.File("fw.pac"), 0, {"system.img", "SC9863A"}},
        {"verify " + dir.File("fw.pac"), 0, {}},
        {"plan " + dir.File("fw.pac"), 0, {}},
        // The folder to extract into does not exist yet: the tool makes it.
        {"extract " + dir.File("fw.pac") + " " + dir.File("out"), 0, {}},
        {"verify " + dir.File("bad.pac"), 1, {"CRC"}},
        {"list " + dir.File("none.pac"), 1, {"Can not open file"}},
        {"frobnicate", 2, {}},
        {"", 2, {}},
    };
    for (const auto& row : rows) {
        const std::string tool = platform::ExeDir() + "../tools/quorvel-pac/quorvel-pac";
        FILE* p = ::popen((tool + " --no-progress " + row.args + " 2>&1").c_str(), "r");
        ASSERT_NE(p, nullptr);
        std::string out;
        std::array<char, 4096> buf;
        while (std::size_t n = std::fread(buf.data(), 1, buf.size(), p)) out.append(buf.data(), n);
        const int status = ::pclose(p);
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, row.exitCode) << row.args << "\n" << out;
        if (row.args.find("--json") != std::string::npos) {
            EXPECT_EQ(out.substr(0, 1), "{");
        }
        for (const char* text : row.shown) EXPECT_NE(out.find(text), std::string::npos) << row.args << "\n" << out;
    }
    int files = 0;
    for (auto& e : std::filesystem::recursive_directory_iterator(dir.File("out"))) files += e.is_regular_file();
    EXPECT_EQ(files, 6) << "the unnamed entry is dropped";
}

}  // namespace
}  // namespace quorvel::test
