#pragma once
// The JSON of every message the station publishes, built from typed values (never from
// what the window shows). Each starts with the version, the message name, the station
// and the time stamp, so a receiver can refuse what it does not know. Plain functions,
// any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "history/JobHistorySummary.h"
#include "history/JobRecord.h"

namespace quorvel::report {

inline constexpr int kPayloadVersion = 1;

// A slot as a report shows it.
struct SlotReport {
    int lane = 0;
    std::string state = "idle";  // idle, waiting, flashing, pass, fail, interrupted
    int percent = 0;
    std::string step;
    std::string port;
    std::int64_t jobSeconds = 0;
    std::string transactionId;
    std::string reason;
    app::PhoneIdentity phone;
    bool operator==(const SlotReport&) const = default;
};

struct CountersReport {
    std::uint32_t total = 0, fail = 0;
    int todayPass = 0, todayFail = 0, todayInterrupted = 0;
    std::optional<double> phonesPerHour;
};

struct PackageReport {
    std::string platform, package, version;
    bool operator==(const PackageReport&) const = default;
};

enum class StationState { Running, Stopped, Offline };

// `line`: the job's history line as the file holds it (without its "\n").
std::string WorkCompleted(const std::string& station, const app::JobRecord& job, std::string_view line);
std::string FaultOccurred(const std::string& station, const app::JobRecord& job);
std::string SlotStateMessage(const std::string& station, const app::TimeStamp& at, const SlotReport& slot);
std::string StationStateChanged(const std::string& station, const app::TimeStamp& at, StationState state, int slots,
                                const std::string& version);
std::string Heartbeat(const std::string& station, const app::TimeStamp& at);
std::string UnitsTested(const std::string& station, const app::TimeStamp& at, const CountersReport& counters);
std::string PackageInUse(const std::string& station, const app::TimeStamp& at, const PackageReport& package);

}  // namespace quorvel::report
