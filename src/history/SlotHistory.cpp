#include "history/SlotHistory.h"

#include <algorithm>
#include <cstdio>

#include "history/JobHistoryReader.h"

namespace quorvel::console {

namespace {

// History texts come from engines and phones: nothing in them may break a row.
std::string OneLine(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    return text;
}

std::string Duration(std::int64_t seconds) {
    if (seconds < 0) seconds = 0;
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld", static_cast<long long>(seconds / 60),
                  static_cast<long long>(seconds % 60));
    return text;
}

}  // namespace

std::vector<SlotHistoryRow> SlotHistoryRows(const std::vector<app::JobRecord>& jobs, int slot) {
    std::vector<const app::JobRecord*> mine;
    for (const app::JobRecord& j : jobs)
        if (j.slot == slot) mine.push_back(&j);
    std::stable_sort(mine.begin(), mine.end(),
                     [](const app::JobRecord* a, const app::JobRecord* b) { return a->end.utc < b->end.utc; });
    std::vector<SlotHistoryRow> rows;
    for (auto it = mine.rbegin(); it != mine.rend(); ++it) {
        const app::JobRecord& j = **it;
        SlotHistoryRow row;
        row.ended = app::IsoText(j.end).substr(11, 8);
        row.result = app::JobResultText(j.result);
        row.time = Duration(j.durationSeconds);
        row.port = OneLine(j.port);
        row.why = OneLine(j.failedStep);
        if (!j.errorText.empty()) row.why += (row.why.empty() ? "" : ": ") + OneLine(j.errorText);
        row.failed = j.result == app::JobResult::Fail;
        rows.push_back(std::move(row));
    }
    return rows;
}

std::vector<SlotHistoryRow> TodaysSlotHistory(const std::string& testLogDir, int slot, std::int64_t nowUtc) {
    const int today = app::LocalDay(app::LocalTimeStamp(nowUtc));
    std::vector<app::JobRecord> jobs;
    for (app::JobRecord& j : app::ReadJobHistory(testLogDir, today, today).jobs)
        if (app::LocalDay(j.end) == today) jobs.push_back(std::move(j));
    return SlotHistoryRows(jobs, slot);
}

std::string FailureText(const app::JobRecord& job) {
    if (job.result != app::JobResult::Fail) return {};
    std::string text = job.failedStep;
    if (!job.errorText.empty()) text += (text.empty() ? "" : "\n") + job.errorText;
    return text;
}

}  // namespace quorvel::console
