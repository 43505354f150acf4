#pragma once
// Per-slot figures of a set of jobs for the operator's shift report. Plain function,
// any thread.
//
// Interrupted jobs (a Stop or a close) are counted on their own and never as failures;
// they take no part in the times either. Of the finished jobs (PASS and FAIL):
// - median time: the median of their durations (the mean of the two middle ones for an
//   even count);
// - phones per hour: their number divided by the span from the earliest start to the
//   latest end among them, in hours; none from fewer than kRateMinJobs jobs or a span
//   under kRateMinSpanSeconds, where one quick job would read as a shift's pace.

#include <optional>
#include <vector>

#include "history/JobRecord.h"

namespace quorvel::app {

inline constexpr int kRateMinJobs = 3;
inline constexpr int kRateMinSpanSeconds = 10 * 60;

struct SlotSummary {
    int slot = 0;  // -1 for the whole station
    int passes = 0;
    int fails = 0;
    int interrupted = 0;
    std::optional<double> medianSeconds;
    std::optional<double> phonesPerHour;
};

// One entry per slot that has jobs, by slot number, then the whole station (slot -1).
std::vector<SlotSummary> Summarise(const std::vector<JobRecord>& jobs);

}  // namespace quorvel::app
