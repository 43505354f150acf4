#pragma once
#include <cstdint>
#include <string>

namespace quorvel::platform {

// Appends `text` + CR LF to the day's log "<folder>/<YYYYMMDD>UILog.txt" (local date
// of `wallSeconds`). Opens, writes in one call and closes, so lines of concurrent
// writers never interleave; a file that cannot be opened drops the line silently.
void AppendDayLog(const std::string& folderWithSlash, std::int64_t wallSeconds, const std::string& text);

// The log's file name for a wall time: "<folder>/<YYYYMMDD>UILog.txt".
std::string DayLogPath(const std::string& folderWithSlash, std::int64_t wallSeconds);

}  // namespace quorvel::platform
