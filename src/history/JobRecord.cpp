#include "history/JobRecord.h"

#include <sys/random.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace quorvel::app {

// Civil-date arithmetic after the well-known days-from-civil algorithm: exact for every
// Gregorian date, no time-zone state, so parsing and file naming are deterministic.
std::int64_t DaysFromCivil(int year, int month, int day) {
    const std::int64_t y = std::int64_t{year} - (month <= 2);
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yoe = y - era * 400;
    const std::int64_t doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

namespace {

struct Civil {
    std::int64_t year;
    int month;
    int day;
};

Civil CivilOf(std::int64_t days) {
    days += 719468;
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const std::int64_t doe = days - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy + 2) / 153;
    const int d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    const int m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    return {yoe + era * 400 + (m <= 2), m, d};
}

std::int64_t FloorDiv(std::int64_t a, std::int64_t b) {
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

bool Digits(std::string_view s, std::size_t pos, std::size_t n, int& out) {
    if (pos + n > s.size()) return false;
    out = 0;
    for (std::size_t i = pos; i < pos + n; ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        out = out * 10 + (s[i] - '0');
    }
    return true;
}

}  // namespace

int CivilFromDays(std::int64_t days) {
    const Civil c = CivilOf(days);
    return static_cast<int>(c.year * 10000 + std::int64_t{c.month} * 100 + c.day);
}

TimeStamp LocalTimeStamp(std::int64_t utc) {
    const std::time_t t = static_cast<std::time_t>(utc);
    std::tm tm{};
    if (!::localtime_r(&t, &tm)) return {utc, 0};
    return {utc, static_cast<int>(tm.tm_gmtoff / 60)};
}

std::string IsoText(const TimeStamp& t) {
    const std::int64_t local = t.Local();
    const std::int64_t days = FloorDiv(local, 86400);
    const std::int64_t secs = local - days * 86400;
    const Civil c = CivilOf(days);
    const int off = t.offsetMinutes < 0 ? -t.offsetMinutes : t.offsetMinutes;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04lld-%02d-%02dT%02d:%02d:%02d%c%02d:%02d", static_cast<long long>(c.year),
                  c.month, c.day, static_cast<int>(secs / 3600), static_cast<int>(secs / 60 % 60),
                  static_cast<int>(secs % 60), t.offsetMinutes < 0 ? '-' : '+', off / 60, off % 60);
    return buf;
}

std::optional<TimeStamp> ParseIsoText(std::string_view s) {
    int y, mo, d, h, mi, se;
    if (!Digits(s, 0, 4, y) || s.size() < 20 || s[4] != '-' || !Digits(s, 5, 2, mo) || s[7] != '-' ||
        !Digits(s, 8, 2, d) || s[10] != 'T' || !Digits(s, 11, 2, h) || s[13] != ':' || !Digits(s, 14, 2, mi) ||
        s[16] != ':' || !Digits(s, 17, 2, se))
        return std::nullopt;
    if (mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || se > 60) return std::nullopt;
    if (CivilFromDays(DaysFromCivil(y, mo, d)) != y * 10000 + mo * 100 + d) return std::nullopt;  // 31 Feb
    int offset = 0;
    if (s.size() == 20 && s[19] == 'Z') {
        offset = 0;
    } else {
        int oh, om;
        if (s.size() != 25 || (s[19] != '+' && s[19] != '-') || !Digits(s, 20, 2, oh) || s[22] != ':' ||
            !Digits(s, 23, 2, om) || oh > 23 || om > 59)
            return std::nullopt;
        offset = (s[19] == '-' ? -1 : 1) * (oh * 60 + om);
    }
    const std::int64_t local = DaysFromCivil(y, mo, d) * 86400 + std::int64_t{h} * 3600 + std::int64_t{mi} * 60 + se;
    return TimeStamp{local - std::int64_t{offset} * 60, offset};
}

int LocalDay(const TimeStamp& t) {
    return CivilFromDays(FloorDiv(t.Local(), 86400));
}

const char* JobResultText(JobResult r) {
    switch (r) {
        case JobResult::Pass: return "PASS";
        case JobResult::Fail: return "FAIL";
        case JobResult::Interrupted: return "interrupted";
    }
    return "FAIL";
}

std::optional<JobResult> ParseJobResult(std::string_view text) {
    for (JobResult r : {JobResult::Pass, JobResult::Fail, JobResult::Interrupted})
        if (text == JobResultText(r)) return r;
    return std::nullopt;
}

void PhoneIdentity::Update(const PhoneIdentity& later) {
    for (auto [mine, theirs] : {std::pair{&chip, &later.chip}, {&serial, &later.serial}, {&imei, &later.imei}})
        if (!theirs->empty()) *mine = *theirs;
}

std::string MakeJobId(const TimeStamp& start, int slot) {
    static std::atomic<unsigned> sequence{0};
    const std::string iso = IsoText(start);  // YYYY-MM-DDTHH:MM:SS...
    const std::string compact = iso.substr(0, 4) + iso.substr(5, 2) + iso.substr(8, 2) + "T" + iso.substr(11, 2) +
                                iso.substr(14, 2) + iso.substr(17, 2);
    // Drawn once: a pid repeats across boots and stations, 48 random bits practically never.
    static const std::uint64_t process = [] {
        std::uint64_t r = 0;
        if (::getrandom(&r, sizeof r, 0) != static_cast<ssize_t>(sizeof r))
            r = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                (static_cast<std::uint64_t>(::getpid()) << 32);
        return r & 0xffffffffffffull;
    }();
    char buf[64];
    std::snprintf(buf, sizeof buf, "-s%02d-%012llx-%u", slot, static_cast<unsigned long long>(process),
                  sequence.fetch_add(1) + 1);
    return compact + buf;
}

}  // namespace quorvel::app
