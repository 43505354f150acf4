#pragma once
// One finished (or interrupted) job of one slot, as the history keeps it, and the
// ISO 8601 time stamps it is written with. Plain values: any thread may use them.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvel::app {

// A moment and the local UTC offset it was seen with, so the text it is written as
// ("2026-11-23T10:40:05+01:00") and the local day it belongs to never depend on the
// time zone of whoever reads it later.
struct TimeStamp {
    std::int64_t utc = 0;   // seconds since the Unix epoch
    int offsetMinutes = 0;  // local time minus UTC

    std::int64_t Local() const { return utc + std::int64_t{offsetMinutes} * 60; }
    bool operator==(const TimeStamp&) const = default;
};

// `utc` with the offset of this machine's time zone at that moment.
TimeStamp LocalTimeStamp(std::int64_t utc);
// "YYYY-MM-DDTHH:MM:SS+HH:MM".
std::string IsoText(const TimeStamp& t);
// Reads IsoText's form; also "Z" for the offset. Nothing else is accepted.
std::optional<TimeStamp> ParseIsoText(std::string_view text);
// The local day as yyyymmdd (20261123).
int LocalDay(const TimeStamp& t);
// Days since 1970-01-01 of a civil date, and back (proleptic Gregorian).
std::int64_t DaysFromCivil(int year, int month, int day);
int CivilFromDays(std::int64_t days);  // yyyymmdd

enum class JobResult { Pass, Fail, Interrupted };
// "PASS", "FAIL", "interrupted": the words the operator sees and the file holds.
const char* JobResultText(JobResult r);
std::optional<JobResult> ParseJobResult(std::string_view text);

// The phone a job flashed, as its engine read it from the phone; a member is empty when
// the engine did not tell it.
struct PhoneIdentity {
    std::string chip{};
    std::string serial{};
    std::string imei{};

    bool Empty() const { return chip.empty() && serial.empty() && imei.empty(); }
    // What `later` knows replaces what this knows; the rest stays.
    void Update(const PhoneIdentity& later);
    // The name a phone is traced by: its IMEI, else its serial number, else empty.
    const std::string& Primary() const { return imei.empty() ? serial : imei; }
    bool operator==(const PhoneIdentity&) const = default;
};

struct JobRecord {
    std::string jobId;
    std::string machine;    // the station's machine stamp
    int slot = 0;           // ThreadIndex
    std::string location;   // socket location text
    std::string port;       // COM name as the slot row shows it
    std::string platform;   // engine kind: MTK, SPRD, CFG
    std::string operation;  // download type
    std::string package;    // package path
    std::string version;    // product/version text of the package
    TimeStamp start;
    TimeStamp end;
    std::int64_t durationSeconds = 0;
    std::optional<std::uint64_t> bytesSent;  // only where the engine tells it
    JobResult result = JobResult::Fail;
    std::string failedStep;  // as the engine gave them; empty on a pass
    std::string errorText;
    // The station's counters just after this job, as they are saved with it: a start after
    // a kill between the two writes finds here what the counters missed.
    std::optional<std::uint32_t> countedTotal;
    std::optional<std::uint32_t> countedFail;
    PhoneIdentity device{};  // empty when the engine did not say

    bool operator==(const JobRecord&) const = default;
};

// A job id unique across processes and stations: local start time, slot, a random
// number drawn once per process and a per-process sequence
// ("20261123T104005-s07-5f3a9c01d2e4-3"). Any thread.
std::string MakeJobId(const TimeStamp& start, int slot);

}  // namespace quorvel::app
