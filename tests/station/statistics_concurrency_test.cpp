#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/ProfileIni.h"
#include "support/StationFixture.h"

namespace quorvel::app {
namespace {

TEST(StatisticsConcurrencyTest, ResetNeverSplitsAJobsStep) {
    test::StationFixture f;
    f.dir.Write("Config/.keep", "");
    Station& st = *f.station;
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w)
        workers.emplace_back([&] {
            for (int j = 0; j < 50; ++j) st.statistics.CountJob(true);
        });
    for (int i = 0; i < 10; ++i) st.statistics.StatisticsReset();
    for (auto& t : workers) t.join();
    // Every job counts a finish and a failure together, so the two never drift apart.
    EXPECT_EQ(st.statistics.Total(), st.statistics.Fail());
    const auto file = st.statistics.FilePath();
    EXPECT_EQ(platform::ProfileIni::ReadInt(file, "total", "NUM", 0), st.statistics.Total());
}

}  // namespace
}  // namespace quorvel::app
