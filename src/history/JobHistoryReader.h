#pragma once
// Reading the job history back: one line, or a TestLog folder over a range of days.
// Nothing in a file is fatal: a line cut by a power loss, NUL bytes the file system
// left, or any line that is not a record is skipped and counted. Plain functions,
// any thread; the files may be appended to while they are read.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "history/JobRecord.h"

namespace quorvel::app {

// One line (without its "\n") as JobLine writes it. Keys may come in any order and
// unknown keys are ignored; "id", "slot", "start", "end" and "result" are required.
// When a cut line was followed by a later record on the same line (an append after a
// power loss), the later record is read: a record starts at the line's last `{"id":`,
// which no escaped text can contain.
std::optional<JobRecord> ParseJobLine(std::string_view line);

struct HistoryRead {
    std::vector<JobRecord> jobs;  // in file order (by day, then as appended)
    int skippedLines = 0;
    std::vector<std::string> unreadableFiles;
};

// Every record of the <yyyymmdd>.jsonl files in `testLogDir` whose day is within
// [fromDay, toDay] (yyyymmdd, both included).
HistoryRead ReadJobHistory(const std::string& testLogDir, int fromDay = 0, int toDay = 99999999);
// The last record of the newest day file that holds one: the last job written.
std::optional<JobRecord> LastJobRecord(const std::string& testLogDir);

}  // namespace quorvel::app
