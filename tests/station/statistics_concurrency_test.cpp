#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/ProfileIni.h"
#include "support/StationFixture.h"

namespace quorvel::app {
namespace {

TEST(StatisticsConcurrencyTest, SixteenWorkersLoseNoCount) {
    test::StationFixture f;
    f.dir.Write("Config/.keep", "");
    Station& st = *f.station;
    st.statistics.StatisticsLoad();
    constexpr int kJobs = 25;
    std::vector<std::thread> workers;
    for (int w = 0; w < kSlotCount; ++w)
        workers.emplace_back([&, w] {
            for (int j = 0; j < kJobs; ++j) st.statistics.CountJob((j + w) % 5 == 0);
        });
    // The operator resets nothing here, but the station thread keeps saving bindings meanwhile.
    for (int i = 0; i < 20; ++i) st.settingsStore.SaveBindings();
    for (auto& t : workers) t.join();
    const std::uint32_t total = kSlotCount * kJobs, failed = total / 5;  // every worker fails one job in five
    EXPECT_EQ(st.statistics.Total(), total);
    EXPECT_EQ(st.statistics.Fail(), failed);
    const auto file = st.statistics.FilePath();
    EXPECT_EQ(platform::ProfileIni::ReadInt(file, "total", "NUM", 0), total);
    EXPECT_EQ(platform::ProfileIni::ReadInt(file, "fail", "NUM", 0), failed);
    EXPECT_EQ(st.view.Text(IDC_TOTAL), std::to_string(total));
}

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
