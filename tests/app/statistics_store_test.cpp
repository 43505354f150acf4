#include <gtest/gtest.h>

#include "app/Station.h"
#include "support/StationFixture.h"

namespace quorvel::app {
namespace {

using test::StationFixture;

struct Fields {
    std::string total, fail, rate;
};
Fields Shown(const Station& st) {
    return {st.view.Text(IDC_TOTAL), st.view.Text(IDC_FAILURES), st.view.Text(IDC_PASS_RATE)};
}

TEST(StatisticsTest, MissingFileIsCreatedWithZeros) {
    StationFixture f;
    f.dir.Write("Config/.keep", "");
    EXPECT_EQ(f.station->statistics.StatisticsLoad(), 1);
    EXPECT_EQ(f.dir.Read("Config/TestResult.ini"), "[total]\nNUM=0\n[fail]\nNUM=0\n");
    auto s = Shown(*f.station);
    EXPECT_EQ(s.total, "0");
    EXPECT_EQ(s.fail, "0");
    EXPECT_EQ(s.rate, "0.00%");
}

TEST(StatisticsTest, RatesAsLoadedAndSaved) {
    StationFixture f;
    f.dir.Write("Config/TestResult.ini", "[total]\nNUM=3\n[fail]\nNUM=1\n");
    f.station->statistics.StatisticsLoad();
    EXPECT_EQ(Shown(*f.station).rate, "66.67%");
    f.station->statistics.CountJob(false);
    EXPECT_EQ(Shown(*f.station).total, "4");
    EXPECT_EQ(Shown(*f.station).rate, "75.00%");
    EXPECT_EQ(f.dir.Read("Config/TestResult.ini"), "[total]\nNUM=4\n[fail]\nNUM=1\n");
}

TEST(StatisticsTest, HandEditedAndGarbageFiles) {
    StationFixture f;
    f.dir.Write("Config/TestResult.ini", "[total]\nNUM=0\n[fail]\nNUM=5\n");
    f.station->statistics.StatisticsLoad();
    auto s = Shown(*f.station);
    EXPECT_EQ(s.fail, "5");
    EXPECT_EQ(s.rate, "0.00%");

    f.dir.Write("Config/TestResult.ini", std::string("\x01\x02garbage[[[\n=\n[total\nNUM=12abc\n\xFF", 31));
    f.station->statistics.StatisticsLoad();
    EXPECT_EQ(f.station->statistics.Total(), 12u);
    EXPECT_EQ(f.station->statistics.Fail(), 0u);
    f.station->statistics.CountJob(true);
    EXPECT_EQ(f.station->statistics.Total(), 13u);
    EXPECT_EQ(f.station->statistics.Fail(), 1u);
}

TEST(StatisticsTest, ResetShowsZerosAtOnceAndCountingGoesOn) {
    StationFixture f;
    f.dir.Write("Config/TestResult.ini", "[total]\nNUM=9\n[fail]\nNUM=4\n");
    f.station->statistics.StatisticsLoad();
    f.station->statistics.StatisticsReset();
    auto s = Shown(*f.station);
    EXPECT_EQ(s.total, "0");
    EXPECT_EQ(s.fail, "0");
    EXPECT_EQ(s.rate, "0.00%");
    f.station->statistics.CountJob(false);
    EXPECT_EQ(Shown(*f.station).total, "1");
    EXPECT_EQ(Shown(*f.station).rate, "100.00%");
}

}  // namespace
}  // namespace quorvel::app
