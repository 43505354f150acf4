#include "history/FleetHistory.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <unordered_set>

#include "history/JobHistoryReader.h"
#include "platform/JsonText.h"

namespace quorvel::app {
namespace {

using platform::JsonObject;
using platform::JsonValue;

// The payload, its job record, the record's identity, and some room for later additions.
constexpr int kPayloadDepth = 4;

bool IsDir(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsJsonl(const std::filesystem::path& p) {
    return p.extension() == ".jsonl";
}

const JsonValue* Member(const JsonObject& o, const char* key, JsonValue::Kind kind) {
    const auto it = o.find(key);
    return it != o.end() && it->second.kind == kind ? &it->second : nullptr;
}

// The day files of a gathered folder in [fromDay, toDay] and its files not named by a day,
// in name order.
std::vector<std::filesystem::path> GatheredFiles(const std::string& folder, int fromDay, int toDay) {
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    const auto take = [&](const fs::path& p) {
        int day;
        if (!DayFileName(p.filename().string(), day) || (day >= fromDay && day <= toDay)) files.push_back(p);
    };
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code e2;
        if (it->is_directory(e2)) {
            for (fs::directory_iterator in(it->path(), e2), end2; !e2 && in != end2; in.increment(e2))
                if (IsJsonl(in->path()) && in->is_regular_file(e2)) take(in->path());
        } else if (IsJsonl(it->path())) {
            take(it->path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

bool ValidStationName(std::string_view name) {
    if (name.empty() || name.size() > 64 || name.find_first_not_of('.') == std::string_view::npos) return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
               c == '.';
    });
}

std::optional<StationJob> ParseJobsPayload(std::string_view payload) {
    const auto o = platform::ReadJsonObject(payload, platform::LoneSurrogate::REPLACE, kPayloadDepth);
    if (!o) return std::nullopt;
    const JsonValue* v = Member(*o, "v", JsonValue::NUMBER);
    const JsonValue* name = Member(*o, "MessageName", JsonValue::STRING);
    const JsonValue* station = Member(*o, "Station", JsonValue::STRING);
    const JsonValue* id = Member(*o, "TransactionID", JsonValue::STRING);
    const JsonValue* job = Member(*o, "Job", JsonValue::OBJECT);
    if (!v || v->text != "1" || !name || name->text != "CFX.Production.WorkCompleted" || !station ||
        !ValidStationName(station->text) || !id || !job)
        return std::nullopt;
    auto record = JobFromJson(*job->object);
    if (!record || record->jobId != id->text) return std::nullopt;
    return StationJob{station->text, std::move(*record)};
}

std::optional<StationJob> ParseGatheredLine(std::string_view line) {
    if (auto payload = ParseJobsPayload(line)) return payload;
    auto record = ParseJobLine(line);
    if (!record) return std::nullopt;
    std::string station = record->machine;
    return StationJob{std::move(station), std::move(*record)};
}

HistoryFolder KindOfFolder(const std::string& folder) {
    if (!IsDir(folder)) return HistoryFolder::NONE;
    if (IsDir(folder + "/TestLog")) return HistoryFolder::STATION;
    std::string base = folder;
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    if (std::filesystem::path(base).filename() == "TestLog") return HistoryFolder::TEST_LOG;
    return GatheredFiles(folder, 0, 99999999).empty() ? HistoryFolder::NONE : HistoryFolder::GATHERED;
}

FleetRead ReadFleetHistory(const std::vector<std::string>& folders, int fromDay, int toDay) {
    FleetRead out;
    std::unordered_set<std::string> seen;
    const auto add = [&](StationJob&& j) {
        if (seen.insert(j.job.jobId).second)
            out.jobs.push_back(std::move(j));
        else
            ++out.duplicates;
    };
    for (const std::string& folder : folders) {
        const HistoryFolder kind = KindOfFolder(folder);
        if (kind == HistoryFolder::STATION || kind == HistoryFolder::TEST_LOG) {
            HistoryRead read =
                ReadJobHistory(kind == HistoryFolder::STATION ? folder + "/TestLog" : folder, fromDay, toDay);
            out.skippedLines += read.skippedLines;
            out.unreadableFiles.insert(out.unreadableFiles.end(), read.unreadableFiles.begin(),
                                       read.unreadableFiles.end());
            for (JobRecord& r : read.jobs) {
                std::string station = r.machine;
                add({std::move(station), std::move(r)});
            }
        } else if (kind == HistoryFolder::GATHERED) {
            for (const auto& file : GatheredFiles(folder, fromDay, toDay)) {
                const bool readable = ReadLines(
                    file.string(),
                    [&](std::string_view line) {
                        auto j = ParseGatheredLine(line);
                        if (j) add(std::move(*j));
                        return j.has_value();
                    },
                    out.skippedLines);
                if (!readable) out.unreadableFiles.push_back(file.string());
            }
        }
    }
    return out;
}

}  // namespace quorvel::app
