#include "history/JobHistoryReader.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include "platform/JsonText.h"

namespace quorvel::app {
namespace {

struct Value {
    enum Kind { String, Number, Null, Bool } kind;
    std::string text;  // the string, or the number's digits
};

class FlatParser {
public:
    explicit FlatParser(std::string_view s) : s_(s) {}

    // A flat object of scalars; false on anything else.
    bool Object(std::map<std::string, Value, std::less<>>& out) {
        Space();
        if (!Eat('{')) return false;
        Space();
        if (Eat('}')) return End();
        for (;;) {
            std::string key;
            Space();
            if (!String(key)) return false;
            Space();
            if (!Eat(':')) return false;
            Space();
            Value v;
            if (!Scalar(v)) return false;
            out.insert_or_assign(std::move(key), std::move(v));
            Space();
            if (Eat('}')) return End();
            if (!Eat(',')) return false;
        }
    }

private:
    bool End() {
        Space();
        return i_ == s_.size();
    }
    void Space() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\r' || s_[i_] == '\n')) ++i_;
    }
    bool Eat(char c) {
        if (i_ < s_.size() && s_[i_] == c) return ++i_, true;
        return false;
    }
    bool Word(std::string_view w) {
        if (s_.substr(i_, w.size()) != w) return false;
        i_ += w.size();
        return true;
    }
    bool Scalar(Value& v) {
        if (i_ >= s_.size()) return false;
        if (s_[i_] == '"') return v.kind = Value::String, String(v.text);
        if (Word("null")) return v.kind = Value::Null, true;
        if (Word("true") || Word("false")) return v.kind = Value::Bool, true;
        const std::size_t from = i_;
        Eat('-');
        while (i_ < s_.size() && ((s_[i_] >= '0' && s_[i_] <= '9') || s_[i_] == '.' || s_[i_] == 'e' || s_[i_] == 'E' ||
                                  s_[i_] == '+' || s_[i_] == '-'))
            ++i_;
        if (i_ == from) return false;
        v.kind = Value::Number;
        v.text = std::string(s_.substr(from, i_ - from));
        return true;
    }
    bool String(std::string& out) {
        return Eat('"') && platform::ReadJsonString(s_, i_, out, platform::LoneSurrogate::REPLACE);
    }

    std::string_view s_;
    std::size_t i_ = 0;
};

template <class T>
bool Integer(const Value& v, T& out) {
    if (v.kind != Value::Number) return false;
    const char* end = v.text.data() + v.text.size();
    const auto r = std::from_chars(v.text.data(), end, out);
    return r.ec == std::errc() && r.ptr == end;
}

std::optional<JobRecord> ParseObject(std::string_view text) {
    std::map<std::string, Value, std::less<>> f;
    if (!FlatParser(text).Object(f)) return std::nullopt;
    const auto str = [&](const char* key) -> const std::string* {
        const auto it = f.find(key);
        return it != f.end() && it->second.kind == Value::String ? &it->second.text : nullptr;
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
    if (const auto b = f.find("bytes"); b != f.end()) {
        std::uint64_t bytes;
        if (Integer(b->second, bytes)) r.bytesSent = bytes;
    }
    return r;
}

bool DayFileName(const std::string& name, int& day) {
    if (name.size() != 14 || name.compare(8, 6, ".jsonl") != 0) return false;
    day = 0;
    for (int i = 0; i < 8; ++i) {
        if (name[i] < '0' || name[i] > '9') return false;
        day = day * 10 + (name[i] - '0');
    }
    return true;
}

}  // namespace

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

// False when the file cannot be read.
bool ReadDayFile(const std::filesystem::path& path, HistoryRead& out) {
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
        if (auto r = ParseJobLine(line))
            out.jobs.push_back(std::move(*r));
        else
            ++out.skippedLines;
    }
    return true;
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
