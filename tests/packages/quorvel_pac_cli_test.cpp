// The technician's tool, run as a program: each command's exit status and whole output
// against tests/golden/quorvel-pac/.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "support/Golden.h"
#include "support/PacWriter.h"
#include "support/TableFile.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

// The packages and runs: tests/tables/quorvel-pac.txt.
TEST(QuorvelPacTool, EveryCommandOnGoodBadAndHostilePackages) {
    TempDir dir;
    std::map<std::string, std::string> goldens;  // runs naming one golden follow each other in it
    for (const auto& row : ReadTable("quorvel-pac.txt")) {
        SCOPED_TRACE(row.where);
        ASSERT_GE(row.words.size(), 2u);
        if (row.words[0] == "fifo" || row.words[0] == "folder") {
            ASSERT_TRUE(row.words[0] == "fifo" ? ::mkfifo(dir.File(row.words[1]).c_str(), 0600) == 0
                                               : std::filesystem::create_directory(dir.File(row.words[1])));
            continue;
        }
        if (row.words[0] == "pac") {
            PacSpec layout;
            std::string error;
            ASSERT_TRUE(ChangePac(layout, row.words, 2, error)) << error;
            WritePac(dir.File(row.words[1]), layout);
            continue;
        }
        ASSERT_TRUE(row.words[0] == "run" && row.words.size() == 3);
        std::string run = RunTranscript("quorvel-pac", "--no-progress " + row.words[2], {{dir.Path(), "$DIR/"}},
                                        "cd " + dir.Path() + " && ");
        // The extraction folder is numbered by the tick count.
        if (std::filesystem::exists(dir.File("out")))
            for (const auto& e : std::filesystem::directory_iterator(dir.File("out")))
                run = Scrub(run, {{e.path().filename().string(), "_DownloadFiles<n>"}});
        goldens[row.words[1]] += run;
    }
    for (const auto& [name, text] : goldens) EXPECT_TRUE(MatchesGolden("quorvel-pac/" + name + ".txt", text));
    int files = 0;
    for (auto& e : std::filesystem::recursive_directory_iterator(dir.File("out"))) files += e.is_regular_file();
    EXPECT_EQ(files, 6) << "the unnamed entry is dropped";
}

}  // namespace
}  // namespace quorvel::test
