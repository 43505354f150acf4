#include "history/JobHistoryReader.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/JsonText.h"

namespace quorvel::app {
namespace {

using platform::JsonObject;
using platform::JsonValue;

template <class T>
bool Integer(const JsonValue& v, T& out) {
    if (v.kind != JsonValue::NUMBER) return false;
    const char* end = v.text.data() + v.text.size();
    const auto r = std::from_chars(v.text.data(), end, out);
    return r.ec == std::errc() && r.ptr == end;
}

// The phone's identity is an object; a little more nesting is read (and ignored), so
// a later addition inside it does not lose the record.
constexpr int kRecordDepth = 3;

std::string TextOf(const JsonObject& o, const char* key) {
    const auto it = o.find(key);
    return it != o.end() && it->second.kind == JsonValue::STRING ? it->second.text : std::string();
}

}  // namespace

std::optional<JobRecord> JobFromJson(const JsonObject& f) {
    const auto str = [&](const char* key) -> const std::string* {
        const auto it = f.find(key);
        return it != f.end() && it->second.kind == JsonValue::STRING ? &it->second.text : nullptr;
    };
    JobRecord r;
    const std::string* id = str("id");
    const std::string* start = str("start");
    const std::string* end = str("end");
    const std::string* result = str("result");
    const auto slot = f.find("slot");
    if (!id || !start || !end || !result || slot == f.end() || !Integer(slot->second, r.slot)) return std::nullopt;
    const auto s = ParseIsoText(*start), e = ParseIsoText(*end);
    const auto res = ParseJobResult(*result);
    if (!s || !e || !res) return std::nullopt;
    r.jobId = *id;
    r.start = *s;
    r.end = *e;
    r.result = *res;
    for (auto [key, member] : {std::pair{"machine", &r.machine},
                               {"location", &r.location},
                               {"port", &r.port},
                               {"platform", &r.platform},
                               {"operation", &r.operation},
                               {"package", &r.package},
                               {"version", &r.version},
                               {"step", &r.failedStep},
                               {"error", &r.errorText}})
        if (const std::string* v = str(key)) *member = *v;
    if (const auto d = f.find("duration_s"); d == f.end() || !Integer(d->second, r.durationSeconds))
        r.durationSeconds = r.end.utc - r.start.utc;
    for (auto [key, member] : {std::pair{"total", &r.countedTotal}, {"fail", &r.countedFail}}) {
        std::uint32_t n;
        if (const auto c = f.find(key); c != f.end() && Integer(c->second, n)) *member = n;
    }
    if (const auto d = f.find("device"); d != f.end() && d->second.kind == JsonValue::OBJECT)
        r.device = {TextOf(*d->second.object, "chip"), TextOf(*d->second.object, "serial"),
                    TextOf(*d->second.object, "imei")};
    if (const auto b = f.find("bytes"); b != f.end()) {
        std::uint64_t bytes;
        if (Integer(b->second, bytes)) r.bytesSent = bytes;
    }
    return r;
}

namespace {

std::optional<JobRecord> ParseObject(std::string_view text) {
    const auto parsed = platform::ReadJsonObject(text, platform::LoneSurrogate::REPLACE, kRecordDepth);
    if (!parsed) return std::nullopt;
    return JobFromJson(*parsed);
}

}  // namespace

bool DayFileName(const std::string& name, int& day) {
    if (name.size() != 14 || name.compare(8, 6, ".jsonl") != 0) return false;
    day = 0;
    for (int i = 0; i < 8; ++i) {
        if (name[i] < '0' || name[i] > '9') return false;
        day = day * 10 + (name[i] - '0');
    }
    return true;
}

std::optional<JobRecord> ParseJobLine(std::string_view line) {
    if (auto r = ParseObject(line)) return r;
    const std::size_t last = line.rfind("{\"id\":");
    if (last == std::string_view::npos || last == 0) return std::nullopt;
    return ParseObject(line.substr(last));
}

namespace {

std::vector<std::pair<int, std::filesystem::path>> DayFiles(const std::string& testLogDir, int fromDay, int toDay) {
    std::vector<std::pair<int, std::filesystem::path>> files;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(testLogDir, ec), end; !ec && it != end; it.increment(ec)) {
        int day;
        if (DayFileName(it->path().filename().string(), day) && day >= fromDay && day <= toDay)
            files.emplace_back(day, it->path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

bool ReadLines(const std::string& path, const std::function<bool(std::string_view)>& take, int& skipped) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    const std::string contents((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::size_t pos = 0;
    while (pos < contents.size()) {
        std::size_t nl = contents.find('\n', pos);
        if (nl == std::string::npos) nl = contents.size();
        const std::string_view line(contents.data() + pos, nl - pos);
        pos = nl + 1;
        if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
        if (!take(line)) ++skipped;
    }
    return true;
}

namespace {

// False when the file cannot be read.
bool ReadDayFile(const std::filesystem::path& path, HistoryRead& out) {
    return ReadLines(
        path.string(),
        [&](std::string_view line) {
            auto r = ParseJobLine(line);
            if (r) out.jobs.push_back(std::move(*r));
            return r.has_value();
        },
        out.skippedLines);
}

}  // namespace

HistoryRead ReadJobHistory(const std::string& testLogDir, int fromDay, int toDay) {
    HistoryRead out;
    for (const auto& [day, path] : DayFiles(testLogDir, fromDay, toDay))
        if (!ReadDayFile(path, out)) out.unreadableFiles.push_back(path.string());
    return out;
}

std::optional<JobRecord> LastJobRecord(const std::string& testLogDir) {
    const auto files = DayFiles(testLogDir, 0, 99999999);
    for (auto it = files.rbegin(); it != files.rend(); ++it) {
        HistoryRead read;
        if (ReadDayFile(it->second, read) && !read.jobs.empty()) return std::move(read.jobs.back());
    }
    return std::nullopt;
}

}  // namespace quorvel::app
