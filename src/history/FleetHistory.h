#pragma once
// The jobs of many stations in one history: station folders, their TestLog folders, and
// folders of job records gathered from the broker (`quorvel-history --collect`). Jobs
// are known by their id across all of them, so one seen twice (a station folder beside
// the records gathered from it) counts once. Plain functions, any thread.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "history/JobRecord.h"

namespace quorvel::app {

// A job and the station that ran it: a gathered payload's `Station`, else the record's
// machine stamp.
struct StationJob {
    std::string station;
    JobRecord job;
};

// A station name as a topic level and a folder name may hold it: letters, digits, '-',
// '_' and '.', 1..64 characters, and not only dots.
bool ValidStationName(std::string_view name);

// A `jobs` message (CFX.Production.WorkCompleted, version 1) with its station, or
// nothing when it is not one: another version or message, a bad station name, no job
// record, or a TransactionID that is not the record's id.
std::optional<StationJob> ParseJobsPayload(std::string_view payload);
// One line of a gathered file: a `jobs` payload or a plain history line.
std::optional<StationJob> ParseGatheredLine(std::string_view line);

enum class HistoryFolder {
    NONE,      // not a folder, or none of the forms below
    STATION,   // holds TestLog/
    TEST_LOG,  // a TestLog folder itself
    GATHERED,  // holds *.jsonl files, directly or one folder down (<Station>/<yyyymmdd>.jsonl)
};
HistoryFolder KindOfFolder(const std::string& folder);

struct FleetRead {
    std::vector<StationJob> jobs;  // by folder, then as each folder's files give them
    int skippedLines = 0;
    int duplicates = 0;  // jobs already read under the same id
    std::vector<std::string> unreadableFiles;
};

// Every job of `folders` (each of a kind above but NONE) in the day files of
// [fromDay, toDay]; gathered files not named by a day are read whole.
FleetRead ReadFleetHistory(const std::vector<std::string>& folders, int fromDay = 0, int toDay = 99999999);

}  // namespace quorvel::app
