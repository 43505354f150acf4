// The technician's tool, run as a program: each command's exit status and whole output
// against tests/golden/quorvel-pac/.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/Golden.h"
#include "support/PacWriter.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

TEST(QuorvelPacTool, EveryCommandOnGoodBadAndHostilePackages) {
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
    const std::pair<const char*, std::string> runs[] = {
        {"list", "list fw.pac"},
        {"list_json", "list --json fw.pac"},
        {"verify", "verify fw.pac"},
        {"plan", "plan fw.pac"},
        // The folder to extract into does not exist yet: the tool makes it.
        {"extract", "extract fw.pac out"},
        {"verify_bad_crc", "verify bad.pac"},
        // Plan refuses whatever Start would refuse, not only a bad selection.
        {"plan_bad_crc", "plan bad.pac"},
        {"plan_huge_entry", "plan huge.pac"},
        {"list_hostile_names", "list hostile.pac"},
        {"plan_hostile_names", "plan hostile.pac"},
        {"list_surrogate", "list surrogate.pac"},
        {"list_missing", "list none.pac"},
        {"unknown_command", "frobnicate"},
        {"no_command", ""},
        {"help", "--help"},
    };
    for (const auto& [name, args] : runs) {
        std::string run =
            RunTranscript("quorvel-pac", "--no-progress " + args, {{dir.Path(), "$DIR/"}}, "cd " + dir.Path() + " && ");
        // The extraction folder is numbered by the tick count.
        if (std::filesystem::exists(dir.File("out")))
            for (const auto& e : std::filesystem::directory_iterator(dir.File("out")))
                run = Scrub(run, {{e.path().filename().string(), "_DownloadFiles<n>"}});
        EXPECT_TRUE(MatchesGolden(std::string("quorvel-pac/") + name + ".txt", run));
    }
    int files = 0;
    for (auto& e : std::filesystem::recursive_directory_iterator(dir.File("out"))) files += e.is_regular_file();
    EXPECT_EQ(files, 6) << "the unnamed entry is dropped";
}

}  // namespace
}  // namespace quorvel::test
