#pragma once
// The pass/fail counters and TestResult.ini. Load and Reset run on the station
// thread; workers call CountJob from their own threads. Each job's increments and
// save form one step that never interleaves with another's or with a reset.

#include <cstdint>
#include <mutex>
#include <string>

namespace quorvel::app {

class Station;

class StatisticsStore {
public:
    explicit StatisticsStore(Station& station) : station_(station) {}

    std::string FilePath() const;
    int StatisticsLoad();
    void StatisticsSave();
    void StatisticsReset();
    // Counts one finished job (and a failure when `failed`) and saves: one step.
    void CountJob(bool failed);

    std::uint32_t Total() const;
    std::uint32_t Fail() const;

private:
    void SaveLocked();

    Station& station_;
    mutable std::mutex mutex_;
    std::uint32_t total_ = 0;
    std::uint32_t fail_ = 0;
};

}  // namespace quorvel::app
