// The technician's tool, run as a program: exit codes, messages and JSON.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "support/PacWriter.h"
#include "support/RunTool.h"
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
        const auto r = test::RunCommand(test::ToolPath("quorvel-pac") + " --no-progress " + row.args);
        const std::string& out = r.out;
        EXPECT_EQ(r.exitCode, row.exitCode) << row.args << "\n" << out;
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
