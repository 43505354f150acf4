// The technician's tool, run as a program: exit codes, messages and JSON.
#include <gtest/gtest.h>

#include <algorithm>
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
    // Names that would move the cursor, recolour the terminal or read right to left.
    PacSpec hostile = TypicalSprdPac();
    hostile.entries[4].name = "sys\x1b[2J\u202Egmi.exe";
    hostile.entries[1].id = "FDL\u2066\x7f";
    WritePac(dir.File("hostile.pac"), hostile);
    PacSpec surrogate = TypicalSprdPac();
    surrogate.tweak = [](packages::PacHeader&, std::vector<packages::PacFileEntry>& table) {
        table[4].FileName[3] = 0xDC00;
    };
    WritePac(dir.File("surrogate.pac"), surrogate);
    PacSpec huge = TypicalSprdPac();
    huge.tweak = [](packages::PacHeader&, std::vector<packages::PacFileEntry>& table) {
        table[4].FileSize = 0xFFFFFFFFu;
    };
    WritePac(dir.File("huge.pac"), huge);
    const struct {
        std::string args;
        int exitCode;
        std::vector<const char*> shown;
        std::vector<const char*> notShown = {};
    } rows[] = {
        {"list --json " + dir.File("fw.pac"), 0, {"system.img", "SC9863A"}},
        {"verify " + dir.File("fw.pac"), 0, {}},
        {"plan " + dir.File("fw.pac"), 0, {}},
        // The folder to extract into does not exist yet: the tool makes it.
        {"extract " + dir.File("fw.pac") + " " + dir.File("out"), 0, {}},
        {"verify " + dir.File("bad.pac"), 1, {"CRC"}},
        // Plan refuses whatever Start would refuse, not only a bad selection.
        {"plan " + dir.File("bad.pac"), 1, {"Verdict: refused-package", "CRC"}, {"Verdict: ok"}},
        {"plan " + dir.File("huge.pac"), 1, {"Verdict: refused-package", "Read pakcet failed"}, {"Verdict: ok"}},
        {"list " + dir.File("hostile.pac"), 0, {"sys\\x1B[2J\\u202Egmi.exe", "FDL\\u2066\\x7F"}, {"\x1b", "\u202E", "\x7f"}},
        {"plan " + dir.File("hostile.pac"), 0, {"sys\\x1B[2J\\u202Egmi.exe"}, {"\x1b", "\u202E"}},
        {"list " + dir.File("surrogate.pac"), 1, {"entry 4 has a text that is not UTF-16"}},
        {"list " + dir.File("none.pac"), 1, {"Can not open file"}},
        {"frobnicate", 2, {"unknown command frobnicate"}},
        {"", 2, {"no command given"}},
        {"--help", 0, {"Exit status"}},
    };
    for (const auto& row : rows) {
        const auto r = test::RunCommand(test::ToolPath("quorvel-pac") + " --no-progress " + row.args);
        const std::string& out = r.out;
        EXPECT_EQ(r.exitCode, row.exitCode) << row.args << "\n" << out;
        if (row.args.find("--json") != std::string::npos) {
            EXPECT_EQ(out.substr(0, 1), "{");
        }
        for (const char* text : row.shown) EXPECT_NE(out.find(text), std::string::npos) << row.args << "\n" << out;
        for (const char* text : row.notShown) EXPECT_EQ(out.find(text), std::string::npos) << row.args << "\n" << out;
        if (row.exitCode == 2) {
            EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
        }
    }
    int files = 0;
    for (auto& e : std::filesystem::recursive_directory_iterator(dir.File("out"))) files += e.is_regular_file();
    EXPECT_EQ(files, 6) << "the unnamed entry is dropped";
}

}  // namespace
}  // namespace quorvel::test
