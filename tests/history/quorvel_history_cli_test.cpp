// The history tool run as a program: filters, output forms and exit codes, each run
// against tests/golden/quorvel-history/.
#include <gtest/gtest.h>

#include "support/Golden.h"
#include "support/TableFile.h"

namespace quorvel::test {
namespace {

// The runs: tests/tables/quorvel-history.txt, on the folders kept in tests/history/folders/.
TEST(QuorvelHistoryTool, FiltersFormsAndExitCodes) {
    std::vector<std::pair<std::string, std::string>> goldens;  // name, its runs so far
    for (const TableRow& row : ReadTable("quorvel-history.txt")) {
        SCOPED_TRACE(row.where);
        ASSERT_EQ(row.words.size(), 3u);
        const std::string& folder = row.words[1];
        const bool inside = folder.rfind("cd:", 0) == 0;
        const std::string d = SourcePath("tests/history/folders/" + folder.substr(inside ? 3 : 0) + "/");
        if (goldens.empty() || goldens.back().first != row.words[0]) goldens.emplace_back(row.words[0], "");
        goldens.back().second += RunTranscript("quorvel-history", Scrub(row.words[2], {{"$DIR/", d}}), {{d, "$DIR/"}},
                                               (inside ? "cd " + d + " && " : "") + "TZ=UTC-1 ");
    }
    for (const auto& [name, runs] : goldens) EXPECT_TRUE(MatchesGolden("quorvel-history/" + name + ".txt", runs));
}

}  // namespace
}  // namespace quorvel::test
