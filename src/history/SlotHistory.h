#pragma once
// What the history window shows of one slot: its jobs of today, newest first, as texts.
// Plain functions; any thread (the window reads the files on the GUI thread).

#include <cstdint>
#include <string>
#include <vector>

#include "history/JobRecord.h"

namespace quorvel::console {

struct SlotHistoryRow {
    std::string ended;   // local time of day, "10:43:00"
    std::string result;  // PASS, FAIL, interrupted
    std::string time;    // duration, "3:00"
    std::string port;
    std::string why;  // failing step and error text, one line
    bool failed = false;
};

// The jobs of `slot` among `jobs`, the latest end first; of jobs that ended in the
// same second the one appended later comes first.
std::vector<SlotHistoryRow> SlotHistoryRows(const std::vector<app::JobRecord>& jobs, int slot);

// The jobs of `slot` that ended on the local day of `nowUtc`, from the history files.
std::vector<SlotHistoryRow> TodaysSlotHistory(const std::string& testLogDir, int slot, std::int64_t nowUtc);

// The failing step and the error text of a failed job on two lines; empty for any other.
std::string FailureText(const app::JobRecord& job);

}  // namespace quorvel::console
