#pragma once
// The pass/fail counters, TestResult.ini and the order in which finished jobs reach the
// disk. Load, Reset, Retry and Close run on the station thread; workers call RecordJob
// and CountJob from their own threads. Each job's increments and writes form one step
// that never interleaves with another's or with a reset.
//
// A job reaches the disk as its history line first, then the counters naming it as their
// last job, and the next job's line only after that: whatever kills the station, the
// files disagree by at most the one job in flight, which the next load finds and counts.
// A write that fails (a full disk) keeps its job and every later one in memory, in
// order; they are written again at each later job, at each Retry and at Close.

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "history/JobRecord.h"

namespace quorvel::app {

class Station;

class StatisticsStore {
public:
    explicit StatisticsStore(Station& station) : station_(station) {}

    std::string FilePath() const;
    // Reads the counters; when the history's last job is not the counters' last and its
    // line holds other counts, the station ended between the two writes of that job: it
    // is counted now and said.
    int StatisticsLoad();
    void StatisticsSave();
    void StatisticsReset();
    // Counts one finished job (and a failure when `failed`) and saves: one step.
    void CountJob(bool failed);
    // Counts the job when `count` and writes its history line and the counters, in order.
    // The job's counters fields are filled here.
    void RecordJob(JobRecord job, bool count);
    // Writes what a full disk held back; does nothing while a worker is writing.
    void Retry();
    // The last writes before the program ends; what still fails is reported on stderr
    // (the history lines whole, so nothing counted is lost). True when nothing is left.
    bool Close();

    std::uint32_t Total() const;
    std::uint32_t Fail() const;
    // Writes held back by a failing disk (history lines and counter saves).
    std::size_t Pending() const;

private:
    // One step to reach the disk: a job's history line (when `job`), then the counters
    // (unless the job was not counted: they did not change).
    struct Entry {
        std::optional<JobRecord> job;
        bool lineWritten = false;
        bool saveCounters = true;
        std::uint32_t total = 0, fail = 0;
        std::string lastJob;
    };
    void QueueLocked(std::optional<JobRecord> job, bool saveCounters = true);
    void FlushLocked();
    void ShowLocked();
    void Failing(const std::string& what);

    Station& station_;
    mutable std::mutex mutex_;
    std::uint32_t total_ = 0;
    std::uint32_t fail_ = 0;
    std::string lastJob_;  // the id of the last job counted
    std::deque<Entry> pending_;
    bool failing_ = false;
    std::string lastError_;
};

}  // namespace quorvel::app
