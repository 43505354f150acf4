#pragma once
// Reading the job history back: one line, or a TestLog folder over a range of days.
// Nothing in a file is fatal: a line cut by a power loss, NUL bytes the file system
// left, or any line that is not a record is skipped and counted. Plain functions,
// any thread; the files may be appended to while they are read.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "history/JobRecord.h"
#include "platform/JsonText.h"

namespace quorvel::app {

// One line (without its "\n") as JobLine writes it. Keys may come in any order and
// unknown keys are ignored; "id", "slot", "start", "end" and "result" are required.
// When a cut line was followed by a later record on the same line (an append after a
// power loss), the later record is read: a record starts at the line's last `{"id":`,
// which no escaped text can contain.
std::optional<JobRecord> ParseJobLine(std::string_view line);
// The record of an object already read (a history line, or the `Job` of a gathered payload).
std::optional<JobRecord> JobFromJson(const platform::JsonObject& object);
// A history file's name, <yyyymmdd>.jsonl, and its day.
bool DayFileName(const std::string& name, int& day);

struct HistoryRead {
    std::vector<JobRecord> jobs;  // in file order (by day, then as appended)
    int skippedLines = 0;
    std::vector<std::string> unreadableFiles;
};

// Every line of one file: each record is given to `take` (false: it is not one of ours
// and counts as skipped). False when the file cannot be read.
bool ReadLines(const std::string& path, const std::function<bool(std::string_view)>& take, int& skipped);

// Every record of the <yyyymmdd>.jsonl files in `testLogDir` whose day is within
// [fromDay, toDay] (yyyymmdd, both included).
HistoryRead ReadJobHistory(const std::string& testLogDir, int fromDay = 0, int toDay = 99999999);
// The last record of the newest day file that holds one: the last job written.
std::optional<JobRecord> LastJobRecord(const std::string& testLogDir);

}  // namespace quorvel::app
