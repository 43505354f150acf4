#include <gtest/gtest.h>

#include "app/Station.h"
#include "support/StationFixture.h"

namespace quorvel::app {
namespace {

using test::StationFixture;

// Total, failures and pass rate as the window shows them.
std::vector<std::string> Shown(const Station& st) {
    return {st.view.Text(IDC_TOTAL), st.view.Text(IDC_FAILURES), st.view.Text(IDC_PASS_RATE)};
}

TEST(StatisticsTest, LoadShowsWhatTheFileHoldsAndCreatesAMissingOne) {
    const struct {
        const char* label;
        const char* file;  // nullptr: no file
        std::vector<std::string> shown;
    } rows[] = {
        {"missing", nullptr, {"0", "0", "0.00%"}},
        {"two_of_three", "[total]\nNUM=3\n[fail]\nNUM=1\n", {"3", "1", "66.67%"}},
        {"more_failures_than_jobs", "[total]\nNUM=0\n[fail]\nNUM=5\n", {"0", "5", "0.00%"}},
        {"garbage", "\x01\x02garbage[[[\n=\n[total]\nNUM=12abc\n\xFF", {"12", "0", "100.00%"}},
        {"header_without_bracket", "[total\nNUM=12\n[fail]\nNUM=1\n", {"0", "1", "0.00%"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        StationFixture f;
        f.dir.Write(row.file ? "Config/TestResult.ini" : "Config/.keep", row.file ? row.file : "");
        EXPECT_EQ(f.station->statistics.StatisticsLoad(), 1);
        EXPECT_EQ(Shown(*f.station), row.shown);
        if (!row.file) {
            EXPECT_EQ(f.dir.Read("Config/TestResult.ini"), "[total]\nNUM=0\n[fail]\nNUM=0\n");
        }
    }
}

TEST(StatisticsTest, CountingSavesAndResetShowsZerosAtOnce) {
    StationFixture f;
    f.dir.Write("Config/TestResult.ini", "[total]\nNUM=3\n[fail]\nNUM=1\n");
    StatisticsStore& stats = f.station->statistics;
    stats.StatisticsLoad();
    stats.CountJob(false);
    EXPECT_EQ(Shown(*f.station), (std::vector<std::string>{"4", "1", "75.00%"}));
    EXPECT_EQ(f.dir.Read("Config/TestResult.ini"), "[total]\nNUM=4\n[fail]\nNUM=1\n");
    stats.CountJob(true);
    EXPECT_EQ(stats.Total(), 5u);
    EXPECT_EQ(stats.Fail(), 2u);
    stats.StatisticsReset();
    EXPECT_EQ(Shown(*f.station), (std::vector<std::string>{"0", "0", "0.00%"}));
    stats.CountJob(false);
    EXPECT_EQ(Shown(*f.station), (std::vector<std::string>{"1", "0", "100.00%"}));
}

}  // namespace
}  // namespace quorvel::app
