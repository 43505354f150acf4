// quorvel-history: what the station did, from its TestLog/<yyyymmdd>.jsonl job history.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "history/JobHistory.h"
#include "history/JobHistoryReader.h"
#include "history/JobHistorySummary.h"

using namespace quorvel::app;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitNoFolder = 1;
constexpr int kExitUsage = 2;

const char* kHelp =
    R"HELP(quorvel-history - the jobs a station has run, from its TestLog folder

Usage:
  quorvel-history [options] STATION_FOLDER

STATION_FOLDER is the folder of the station program (the one holding Config/ and
TestLog/), or its TestLog folder itself.

Options:
  --since WHEN     only jobs that ended at or after WHEN
  --until WHEN     only jobs that ended at or before WHEN (a date: up to the end of that day)
  --slot N         only slot N (1..16, the row numbers of the station's window)
  --result R       only results R: pass, fail or interrupted
  --csv            comma-separated values with a header row, for a spreadsheet
  --json           one JSON array of job objects (the fields of the history lines)
  --summary        per slot: passes, fails, interrupted jobs, median time and phones per
                   hour, then the whole station ("all"); with --csv or --json in that form
  --help           this text

WHEN is a date (2026-11-23) or a time (2026-11-23T10:40, 2026-11-23T10:40:05). Dates and
times without an offset are the station's local time as each job recorded it; with an
offset (2026-11-23T10:40:00+01:00 or ...Z) they are that exact moment.

Slots are numbered 1..16 in every output form, as the window's rows are; the
history files keep the station's own index, one less.

Summary figures: interrupted jobs (a Stop or a close) are never counted as failures and
take no part in the times. Median time is the median duration of the passed and failed
jobs. Phones per hour is the number of those jobs divided by the hours from the first
one's start to the last one's end; "-" from fewer than 3 such jobs or a span under 10
minutes, where one quick job would read as a shift's pace.

Exit status:
  0  success (also when no job matches)
  1  the folder does not exist or holds no TestLog folder
  2  the command line was not understood
)HELP";

int Usage(const std::string& why) {
    std::fprintf(stderr, "quorvel-history: %s (quorvel-history --help tells more)\n", why.c_str());
    return kExitUsage;
}

bool IsDir(const std::string& p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A --since/--until bound.
struct Bound {
    enum Kind { Day, Local, Instant } kind;
    std::int64_t value;  // yyyymmdd, local seconds, or UTC seconds
};

std::optional<Bound> ParseBound(std::string_view s) {
    if (s.size() == 10) {
        if (const auto t = ParseIsoText(std::string(s) + "T00:00:00Z")) return Bound{Bound::Day, LocalDay(*t)};
        return std::nullopt;
    }
    if (s.size() == 16 || s.size() == 19) {
        const std::string full = std::string(s) + (s.size() == 16 ? ":00Z" : "Z");
        if (const auto t = ParseIsoText(full)) return Bound{Bound::Local, t->utc};
        return std::nullopt;
    }
    if (const auto t = ParseIsoText(s)) return Bound{Bound::Instant, t->utc};
    return std::nullopt;
}

std::int64_t DaysOf(std::int64_t seconds) {
    return seconds / 86400 - (seconds % 86400 < 0);
}

// The files that can hold jobs on the bound's side; the offsets of the world span less
// than a day, so an instant needs one day more of margin.
int FileDay(const Bound& b, int margin) {
    switch (b.kind) {
        case Bound::Day: return static_cast<int>(b.value);
        case Bound::Local: return CivilFromDays(DaysOf(b.value));
        case Bound::Instant: return CivilFromDays(DaysOf(b.value) + margin);
    }
    return 0;
}

// -1 before the bound, 0 on it, 1 after it.
int Compare(const JobRecord& j, const Bound& b) {
    const std::int64_t v = b.kind == Bound::Day ? LocalDay(j.end) : b.kind == Bound::Local ? j.end.Local() : j.end.utc;
    return v < b.value ? -1 : v > b.value ? 1 : 0;
}

std::string Csv(const std::string& s) {
    if (s.find_first_of(",\"\r\n") == std::string::npos) return s;
    std::string out = "\"";
    for (char c : s) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

std::string LocalText(const TimeStamp& t) {
    std::string iso = IsoText(t);
    iso[10] = ' ';
    return iso.substr(0, 19);
}

std::string Minutes(double seconds) {
    const long s = std::lround(seconds);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%ld:%02ld", s / 60, s % 60);
    return buf;
}

// Characters of a UTF-8 text (continuation bytes do not count).
std::size_t Width(const std::string& s) {
    std::size_t n = 0;
    for (unsigned char c : s) n += (c & 0xC0) != 0x80;
    return n;
}

// A port name in a column of `width` characters: a longer one keeps its end, where
// "(COM<n>)" stands, behind an ellipsis.
std::string PortCell(std::string port, std::size_t width) {
    for (char& c : port)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    std::size_t w = Width(port);
    if (w > width) {
        std::size_t start = port.size();
        for (std::size_t keep = width - 1; keep > 0 && start > 0;)
            if ((static_cast<unsigned char>(port[--start]) & 0xC0) != 0x80) --keep;
        port = "\u2026" + port.substr(start);
        w = width;
    }
    return port + std::string(width - w, ' ');
}

std::string Fixed(const std::optional<double>& v, const char* none) {
    if (!v) return none;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", *v);
    return buf;
}

// The operator knows a slot by its row number in the window, one more than the
// index the files keep.
int RowNumber(int slot) {
    return slot + 1;
}

std::string SlotName(int slot) {
    return slot < 0 ? "all" : std::to_string(RowNumber(slot));
}

void PrintJobs(const std::vector<JobRecord>& jobs, bool csv, bool json) {
    if (json) {
        std::fputs("[", stdout);
        for (std::size_t i = 0; i < jobs.size(); ++i) {
            JobRecord shown = jobs[i];
            shown.slot = RowNumber(shown.slot);
            std::string line = JobLine(shown);
            line.pop_back();
            std::printf("%s\n%s", i ? "," : "", line.c_str());
        }
        std::fputs("\n]\n", stdout);
        return;
    }
    if (csv) {
        std::fputs(
            "id,machine,slot,location,port,platform,operation,package,version,start,end,duration_s,bytes,result,"
            "step,error\r\n",
            stdout);
        for (const JobRecord& j : jobs) {
            const std::vector<std::string> cells{j.jobId,
                                                 j.machine,
                                                 std::to_string(RowNumber(j.slot)),
                                                 j.location,
                                                 j.port,
                                                 j.platform,
                                                 j.operation,
                                                 j.package,
                                                 j.version,
                                                 IsoText(j.start),
                                                 IsoText(j.end),
                                                 std::to_string(j.durationSeconds),
                                                 j.bytesSent ? std::to_string(*j.bytesSent) : "",
                                                 JobResultText(j.result),
                                                 j.failedStep,
                                                 j.errorText};
            std::string row;
            for (const std::string& c : cells) row += (row.empty() ? "" : ",") + Csv(c);
            std::printf("%s\r\n", row.c_str());
        }
        return;
    }
    // As wide as the widest port shown, up to kPortMax characters.
    constexpr std::size_t kPortMax = 30;
    std::size_t portWidth = 4;
    for (const JobRecord& j : jobs) portWidth = std::max(portWidth, std::min(Width(j.port), kPortMax));
    std::printf("%-19s  %4s  %-11s  %7s  %s  %s\n", "Ended", "Slot", "Result", "Time",
                PortCell("Port", portWidth).c_str(), "Step / error");
    for (const JobRecord& j : jobs) {
        std::string why = j.failedStep;
        if (!j.errorText.empty()) why += (why.empty() ? "" : ": ") + j.errorText;
        for (char& c : why)
            if (static_cast<unsigned char>(c) < 0x20) c = ' ';
        char line[256];
        std::snprintf(line, sizeof line, "%-19s  %4d  %-11s  %7s  ", LocalText(j.end).c_str(), RowNumber(j.slot),
                      JobResultText(j.result), Minutes(static_cast<double>(j.durationSeconds)).c_str());
        std::string text = line + PortCell(j.port, portWidth) + "  " + why;
        text.erase(text.find_last_not_of(' ') + 1);
        std::printf("%s\n", text.c_str());
    }
    std::printf("%zu job%s\n", jobs.size(), jobs.size() == 1 ? "" : "s");
}

void PrintSummary(const std::vector<SlotSummary>& rows, bool csv, bool json) {
    if (json) {
        std::fputs("[", stdout);
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const SlotSummary& r = rows[i];
            std::printf(
                "%s\n{\"slot\":%s,\"passes\":%d,\"fails\":%d,\"interrupted\":%d,\"median_s\":%s,"
                "\"phones_per_hour\":%s}",
                i ? "," : "", r.slot < 0 ? "\"all\"" : SlotName(r.slot).c_str(), r.passes, r.fails, r.interrupted,
                Fixed(r.medianSeconds, "null").c_str(), Fixed(r.phonesPerHour, "null").c_str());
        }
        std::fputs("\n]\n", stdout);
        return;
    }
    if (csv) {
        std::fputs("slot,passes,fails,interrupted,median_s,phones_per_hour\r\n", stdout);
        for (const SlotSummary& r : rows)
            std::printf("%s,%d,%d,%d,%s,%s\r\n", SlotName(r.slot).c_str(), r.passes, r.fails, r.interrupted,
                        Fixed(r.medianSeconds, "").c_str(), Fixed(r.phonesPerHour, "").c_str());
        return;
    }
    std::printf("%4s  %6s  %6s  %11s  %8s  %9s\n", "Slot", "Passes", "Fails", "Interrupted", "Median", "Phones/h");
    for (const SlotSummary& r : rows)
        std::printf("%4s  %6d  %6d  %11d  %8s  %9s\n", SlotName(r.slot).c_str(), r.passes, r.fails, r.interrupted,
                    r.medianSeconds ? Minutes(*r.medianSeconds).c_str() : "-", Fixed(r.phonesPerHour, "-").c_str());
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<Bound> since, until;
    std::optional<int> slot;
    std::optional<JobResult> result;
    bool csv = false, json = false, summary = false;
    std::string folder;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return kExitOk;
        } else if (a == "--since" || a == "--until") {
            const char* v = value();
            const auto b = v ? ParseBound(v) : std::nullopt;
            if (!b) return Usage(a + " needs a date or time such as 2026-11-23 or 2026-11-23T10:40");
            (a == "--since" ? since : until) = b;
        } else if (a == "--slot") {
            const char* v = value();
            char* end = nullptr;
            const long n = v ? std::strtol(v, &end, 10) : -1;
            if (!v || *v == '\0' || *end != '\0' || n < 1 || n > 16) return Usage("--slot needs a number 1..16");
            slot = static_cast<int>(n) - 1;
        } else if (a == "--result") {
            const char* v = value();
            const std::string r = v ? v : "";
            if (r == "pass")
                result = JobResult::Pass;
            else if (r == "fail")
                result = JobResult::Fail;
            else if (r == "interrupted")
                result = JobResult::Interrupted;
            else
                return Usage("--result needs pass, fail or interrupted");
        } else if (a == "--csv") {
            csv = true;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--summary") {
            summary = true;
        } else if (a.size() > 1 && a[0] == '-') {
            return Usage("unknown option " + a);
        } else if (folder.empty()) {
            folder = a;
        } else {
            return Usage("one station folder only");
        }
    }
    if (folder.empty()) return Usage("no station folder given");
    if (csv && json) return Usage("--csv and --json exclude each other");

    std::string testLog = folder + "/TestLog";
    if (!IsDir(testLog)) {
        std::string base = folder;
        while (base.size() > 1 && base.back() == '/') base.pop_back();
        const bool isTestLog = base.size() >= 7 && base.compare(base.size() - 7, 7, "TestLog") == 0 &&
                               (base.size() == 7 || base[base.size() - 8] == '/');
        if (!isTestLog || !IsDir(folder)) {
            std::fprintf(stderr, "quorvel-history: %s is not a station folder (no TestLog folder in it)\n",
                         folder.c_str());
            return kExitNoFolder;
        }
        testLog = folder;
    }

    const HistoryRead read =
        ReadJobHistory(testLog, since ? FileDay(*since, -1) : 0, until ? FileDay(*until, 1) : 99999999);
    for (const std::string& f : read.unreadableFiles)
        std::fprintf(stderr, "quorvel-history: cannot read %s\n", f.c_str());
    if (read.skippedLines)
        std::fprintf(stderr, "quorvel-history: %d damaged line%s skipped\n", read.skippedLines,
                     read.skippedLines == 1 ? "" : "s");

    std::vector<JobRecord> jobs;
    for (const JobRecord& j : read.jobs) {
        if (since && Compare(j, *since) < 0) continue;
        if (until && Compare(j, *until) > 0) continue;
        if (slot && j.slot != *slot) continue;
        if (result && j.result != *result) continue;
        jobs.push_back(j);
    }
    std::stable_sort(jobs.begin(), jobs.end(),
                     [](const JobRecord& a, const JobRecord& b) { return a.end.utc < b.end.utc; });
    if (summary)
        PrintSummary(Summarise(jobs), csv, json);
    else
        PrintJobs(jobs, csv, json);
    return kExitOk;
}
