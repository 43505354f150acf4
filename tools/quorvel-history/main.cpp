// quorvel-history: what the stations did, from their TestLog/<yyyymmdd>.jsonl job
// histories or the job records gathered from their broker; and the gathering itself.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Collect.h"
#include "history/FleetHistory.h"
#include "history/JobHistory.h"
#include "history/JobHistorySummary.h"
#include "platform/JsonText.h"

using namespace quorvel::app;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitNoFolder = 1;
constexpr int kExitUsage = 2;

const char* kHelp =
    R"HELP(quorvel-history - the jobs stations have run, from their TestLog folders

Usage:
  quorvel-history [options] FOLDER...
  quorvel-history --collect BROKER FOLDER [--user NAME] [--password-file FILE]
                  [--ca-file FILE] [--client-id ID]

Each FOLDER is the folder of a station program (the one holding Config/ and TestLog/),
its TestLog folder itself, or a folder of job records gathered from the broker (by
--collect, or JSON Lines of the broker's `jobs` messages or of history lines). A job
found in several of them counts once. With jobs of more than one station the table
has a Station column and the summary is per station. A station is named by its
`Station` in a gathered message, else by the machine stamp of its records.

--collect subscribes to quorvel/+/jobs on BROKER (mqtt://host[:port] or
mqtts://host[:port]) and writes each job once, as it came, to
FOLDER/<Station>/<yyyymmdd>.jsonl (the day the job ended), until SIGINT or SIGTERM.
Jobs already in FOLDER are not written again. The broker keeps what comes while the
collector is briefly away: its session is a persistent one under a fixed client id
(by default made from the host and FOLDER). Messages that are not job records of
version 1 are ignored and counted.

Options:
  --since WHEN     only jobs that ended at or after WHEN
  --until WHEN     only jobs that ended at or before WHEN (a date: up to the end of that day)
  --slot N         only slot N (1..16, the row numbers of the station's window)
  --result R       only results R: pass, fail or interrupted
  --station NAME   only the station NAME
  --phone TEXT     only phones whose serial number or IMEI contains TEXT
  --csv            comma-separated values with a header row, for a spreadsheet
  --json           one JSON array of job objects (the fields of the history lines)
  --summary        per slot: passes, fails, interrupted jobs, median time and phones per
                   hour, then the whole station ("all"); with jobs of several stations
                   per station, then all of them; with --csv or --json in that form
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
  0  success (also when no job matches; --collect: stopped by a signal)
  1  a folder does not exist or is none of the forms above; --collect: FOLDER cannot
     be written or the broker refused the subscription
  2  the command line was not understood
)HELP";

int Usage(const std::string& why) {
    std::fprintf(stderr, "quorvel-history: %s (quorvel-history --help tells more)\n", why.c_str());
    return kExitUsage;
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

// What a table row may show of a text: control characters become blanks.
std::string Plain(std::string s) {
    for (char& c : s)
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    return s;
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return s;
}

void PrintJobs(const std::vector<StationJob>& jobs, bool csv, bool json, bool stations) {
    if (json) {
        std::fputs("[", stdout);
        for (std::size_t i = 0; i < jobs.size(); ++i) {
            JobRecord shown = jobs[i].job;
            shown.slot = RowNumber(shown.slot);
            std::string line = JobLine(shown);
            line.resize(line.size() - 2);  // "}\n"
            std::printf("%s\n%s,\"station\":%s}", i ? "," : "", line.c_str(),
                        quorvel::platform::JsonQuote(jobs[i].station).c_str());
        }
        std::fputs("\n]\n", stdout);
        return;
    }
    if (csv) {
        std::fputs(
            "id,machine,slot,location,port,platform,operation,package,version,start,end,duration_s,bytes,result,"
            "step,error,station,chip,serial,imei\r\n",
            stdout);
        for (const auto& [station, j] : jobs) {
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
                                                 j.errorText,
                                                 station,
                                                 j.device.chip,
                                                 j.device.serial,
                                                 j.device.imei};
            std::string row;
            for (const std::string& c : cells) row += (row.empty() ? "" : ",") + Csv(c);
            std::printf("%s\r\n", row.c_str());
        }
        return;
    }
    // As wide as the widest text shown, up to kColumnMax characters.
    constexpr std::size_t kColumnMax = 30;
    std::size_t portWidth = 4, stationWidth = 7, phoneWidth = 0;
    for (const auto& [station, j] : jobs) {
        portWidth = std::max(portWidth, std::min(Width(j.port), kColumnMax));
        stationWidth = std::max(stationWidth, std::min(Width(station), kColumnMax));
        if (!j.device.Primary().empty()) phoneWidth = std::max<std::size_t>({phoneWidth, 5, Width(j.device.Primary())});
    }
    const auto row = [&](const std::string& ended, const std::string& station, const std::string& slot,
                         const std::string& result, const std::string& time, const std::string& port,
                         const std::string& phone, const std::string& why) {
        char head[128];
        std::snprintf(head, sizeof head, "%-19s  ", ended.c_str());
        std::string text = head;
        if (stations) text += PortCell(station, stationWidth) + "  ";
        std::snprintf(head, sizeof head, "%4s  %-11s  %7s  ", slot.c_str(), result.c_str(), time.c_str());
        text += head + PortCell(port, portWidth) + "  ";
        if (phoneWidth) text += PortCell(phone, phoneWidth) + "  ";
        text += why;
        text.erase(text.find_last_not_of(' ') + 1);
        std::printf("%s\n", text.c_str());
    };
    row("Ended", "Station", "Slot", "Result", "Time", "Port", "Phone", "Step / error");
    for (const auto& [station, j] : jobs) {
        std::string why = j.failedStep;
        if (!j.errorText.empty()) why += (why.empty() ? "" : ": ") + j.errorText;
        row(LocalText(j.end), station, std::to_string(RowNumber(j.slot)), JobResultText(j.result),
            Minutes(static_cast<double>(j.durationSeconds)), j.port, Plain(j.device.Primary()), Plain(why));
    }
    std::printf("%zu job%s\n", jobs.size(), jobs.size() == 1 ? "" : "s");
}

// One summary row: a slot's (`name` its row number or "all") or a station's.
struct SummaryRow {
    std::string name;
    SlotSummary figures;
};

void PrintSummary(const std::vector<SummaryRow>& rows, const char* what, bool csv, bool json) {
    if (json) {
        std::fputs("[", stdout);
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const SlotSummary& r = rows[i].figures;
            const bool number = std::string(what) == "slot" && rows[i].name != "all";
            std::printf(
                "%s\n{\"%s\":%s,\"passes\":%d,\"fails\":%d,\"interrupted\":%d,\"median_s\":%s,"
                "\"phones_per_hour\":%s}",
                i ? "," : "", what, number ? rows[i].name.c_str() : quorvel::platform::JsonQuote(rows[i].name).c_str(),
                r.passes, r.fails, r.interrupted, Fixed(r.medianSeconds, "null").c_str(),
                Fixed(r.phonesPerHour, "null").c_str());
        }
        std::fputs("\n]\n", stdout);
        return;
    }
    if (csv) {
        std::printf("%s,passes,fails,interrupted,median_s,phones_per_hour\r\n", what);
        for (const auto& [name, r] : rows)
            std::printf("%s,%d,%d,%d,%s,%s\r\n", Csv(name).c_str(), r.passes, r.fails, r.interrupted,
                        Fixed(r.medianSeconds, "").c_str(), Fixed(r.phonesPerHour, "").c_str());
        return;
    }
    std::size_t width = 4;
    for (const auto& row : rows) width = std::max(width, std::min<std::size_t>(Width(row.name), 30));
    const bool left = std::string(what) != "slot";
    const auto first = [&](const std::string& text) {
        const std::string cell = PortCell(Plain(text), width);
        return left ? cell : std::string(width - Width(text), ' ') + text;
    };
    std::printf("%s  %6s  %6s  %11s  %8s  %9s\n", first(left ? "Station" : "Slot").c_str(), "Passes", "Fails",
                "Interrupted", "Median", "Phones/h");
    for (const auto& [name, r] : rows)
        std::printf("%s  %6d  %6d  %11d  %8s  %9s\n", first(name).c_str(), r.passes, r.fails, r.interrupted,
                    r.medianSeconds ? Minutes(*r.medianSeconds).c_str() : "-", Fixed(r.phonesPerHour, "-").c_str());
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<Bound> since, until;
    std::optional<int> slot;
    std::optional<JobResult> result;
    std::optional<std::string> station, phone;
    bool csv = false, json = false, summary = false;
    std::vector<std::string> folders;
    std::optional<CollectOptions> collect;
    CollectOptions collectSettings;
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
        } else if (a == "--station" || a == "--phone") {
            const char* v = value();
            if (!v || *v == '\0') return Usage(a + (a == "--station" ? " needs a station's name" : " needs a text"));
            (a == "--station" ? station : phone) = v;
        } else if (a == "--csv") {
            csv = true;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--summary") {
            summary = true;
        } else if (a == "--collect") {
            const char* broker = value();
            const char* folder = value();
            if (!broker || !folder) return Usage("--collect needs a BROKER and a FOLDER");
            collect = CollectOptions{};
            collect->broker = broker;
            collect->folder = folder;
        } else if (a == "--user" || a == "--password-file" || a == "--ca-file" || a == "--client-id") {
            const char* v = value();
            if (!v) return Usage(a + " needs a value");
            (a == "--user"            ? collectSettings.user
             : a == "--password-file" ? collectSettings.passwordFile
             : a == "--ca-file"       ? collectSettings.caFile
                                      : collectSettings.clientId) = v;
        } else if (a.size() > 1 && a[0] == '-') {
            return Usage("unknown option " + a);
        } else {
            folders.push_back(a);
        }
    }
    if (collect) {
        if (!folders.empty()) return Usage("--collect takes no other folder");
        collect->user = collectSettings.user;
        collect->passwordFile = collectSettings.passwordFile;
        collect->caFile = collectSettings.caFile;
        collect->clientId = collectSettings.clientId;
        return RunCollect(*collect);
    }
    if (!collectSettings.user.empty() || !collectSettings.passwordFile.empty() || !collectSettings.caFile.empty() ||
        !collectSettings.clientId.empty())
        return Usage("--user, --password-file, --ca-file and --client-id go with --collect");
    if (folders.empty()) return Usage("no station folder given");
    if (csv && json) return Usage("--csv and --json exclude each other");

    for (const std::string& folder : folders)
        if (KindOfFolder(folder) == HistoryFolder::NONE) {
            std::fprintf(stderr,
                         "quorvel-history: %s is neither a station folder (no TestLog folder in it) nor a "
                         "folder of gathered job records\n",
                         folder.c_str());
            return kExitNoFolder;
        }

    const FleetRead read =
        ReadFleetHistory(folders, since ? FileDay(*since, -1) : 0, until ? FileDay(*until, 1) : 99999999);
    for (const std::string& f : read.unreadableFiles)
        std::fprintf(stderr, "quorvel-history: cannot read %s\n", f.c_str());
    if (read.skippedLines)
        std::fprintf(stderr, "quorvel-history: %d damaged line%s skipped\n", read.skippedLines,
                     read.skippedLines == 1 ? "" : "s");

    // The Station column and the per-station summary come with a second station, whatever
    // the filters keep, so one command line always gives one form.
    bool stations = false;
    for (const StationJob& j : read.jobs) stations = stations || j.station != read.jobs.front().station;
    const std::string wanted = phone ? Lower(*phone) : "";
    std::vector<StationJob> jobs;
    for (const StationJob& sj : read.jobs) {
        const JobRecord& j = sj.job;
        if (since && Compare(j, *since) < 0) continue;
        if (until && Compare(j, *until) > 0) continue;
        if (slot && j.slot != *slot) continue;
        if (result && j.result != *result) continue;
        if (station && sj.station != *station) continue;
        if (phone && Lower(j.device.serial).find(wanted) == std::string::npos &&
            j.device.imei.find(wanted) == std::string::npos)
            continue;
        jobs.push_back(sj);
    }
    std::stable_sort(jobs.begin(), jobs.end(),
                     [](const StationJob& a, const StationJob& b) { return a.job.end.utc < b.job.end.utc; });
    if (!summary) {
        PrintJobs(jobs, csv, json, stations);
        return kExitOk;
    }
    std::vector<SummaryRow> rows;
    if (stations && !station) {
        std::map<std::string, std::vector<JobRecord>> byStation;
        std::vector<JobRecord> all;
        for (const auto& [name, j] : jobs) {
            byStation[name].push_back(j);
            all.push_back(j);
        }
        for (const auto& [name, list] : byStation) rows.push_back({name, Summarise(list).back()});
        rows.push_back({"all", Summarise(all).back()});
        PrintSummary(rows, "station", csv, json);
    } else {
        std::vector<JobRecord> all;
        all.reserve(jobs.size());
        for (const auto& sj : jobs) all.push_back(sj.job);
        for (const SlotSummary& r : Summarise(all)) rows.push_back({SlotName(r.slot), r});
        PrintSummary(rows, "slot", csv, json);
    }
    return kExitOk;
}
