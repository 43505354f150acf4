#include "history/JobHistorySummary.h"

#include <algorithm>
#include <map>

namespace quorvel::app {
namespace {

SlotSummary SummariseOne(int slot, const std::vector<const JobRecord*>& jobs) {
    SlotSummary s;
    s.slot = slot;
    std::vector<std::int64_t> durations;
    std::int64_t first = 0, last = 0;
    for (const JobRecord* j : jobs) {
        if (j->result == JobResult::Interrupted) {
            ++s.interrupted;
            continue;
        }
        ++(j->result == JobResult::Pass ? s.passes : s.fails);
        if (durations.empty() || j->start.utc < first) first = j->start.utc;
        if (durations.empty() || j->end.utc > last) last = j->end.utc;
        durations.push_back(j->durationSeconds);
    }
    if (durations.empty()) return s;
    std::sort(durations.begin(), durations.end());
    const std::size_t n = durations.size();
    s.medianSeconds = n % 2 ? static_cast<double>(durations[n / 2])
                            : (static_cast<double>(durations[n / 2 - 1]) + static_cast<double>(durations[n / 2])) / 2;
    if (n >= static_cast<std::size_t>(kRateMinJobs) && last - first >= kRateMinSpanSeconds)
        s.phonesPerHour = static_cast<double>(n) * 3600.0 / static_cast<double>(last - first);
    return s;
}

}  // namespace

std::vector<SlotSummary> Summarise(const std::vector<JobRecord>& jobs) {
    std::map<int, std::vector<const JobRecord*>> bySlot;
    std::vector<const JobRecord*> all;
    for (const JobRecord& j : jobs) {
        bySlot[j.slot].push_back(&j);
        all.push_back(&j);
    }
    std::vector<SlotSummary> out;
    out.reserve(bySlot.size() + 1);
    for (const auto& [slot, list] : bySlot) out.push_back(SummariseOne(slot, list));
    out.push_back(SummariseOne(-1, all));
    return out;
}

}  // namespace quorvel::app
