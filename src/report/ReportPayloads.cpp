#include "report/ReportPayloads.h"

#include <cmath>
#include <cstdio>

#include "platform/JsonText.h"

namespace quorvel::report {

namespace {

using platform::JsonQuote;

std::string Head(const char* name, const std::string& station, const app::TimeStamp& at) {
    return "{\"v\":" + std::to_string(kPayloadVersion) + ",\"MessageName\":" + JsonQuote(name) +
           ",\"Station\":" + JsonQuote(station) + ",\"TimeStamp\":" + JsonQuote(app::IsoText(at));
}

const char* ResultName(app::JobResult r) {
    switch (r) {
        case app::JobResult::Pass: return "Completed";
        case app::JobResult::Fail: return "Failed";
        case app::JobResult::Interrupted: return "Aborted";
    }
    return "Failed";
}

const char* StateName(StationState s) {
    switch (s) {
        case StationState::Running: return "Running";
        case StationState::Stopped: return "Stopped";
        case StationState::Offline: return "Offline";
    }
    return "Offline";
}

// The members known, as the history line writes its device object.
std::string Phone(const app::PhoneIdentity& p) {
    std::string out;
    for (const auto& [key, value] : {std::pair{"chip", &p.chip}, {"serial", &p.serial}, {"imei", &p.imei}})
        if (!value->empty()) out += (out.empty() ? "\"" : ",\"") + std::string(key) + "\":" + JsonQuote(*value);
    return "{" + out + "}";
}

}  // namespace

std::string WorkCompleted(const std::string& station, const app::JobRecord& job, std::string_view line) {
    // The job's end, not the publishing moment: a job published twice is published identically.
    return Head("CFX.Production.WorkCompleted", station, job.end) + ",\"TransactionID\":" + JsonQuote(job.jobId) +
           ",\"Result\":\"" + ResultName(job.result) + "\",\"Lane\":" + std::to_string(job.slot) +
           ",\"PrimaryIdentifier\":" + JsonQuote(job.device.Primary()) + ",\"Job\":" + std::string(line) + "}";
}

std::string FaultOccurred(const std::string& station, const app::JobRecord& job) {
    return Head("CFX.ResourcePerformance.FaultOccurred", station, job.end) +
           ",\"Fault\":{\"FaultCode\":" + JsonQuote(job.failedStep) + ",\"Description\":" + JsonQuote(job.errorText) +
           ",\"Lane\":" + std::to_string(job.slot) + ",\"TransactionID\":" + JsonQuote(job.jobId) + "}}";
}

std::string SlotStateMessage(const std::string& station, const app::TimeStamp& at, const SlotReport& s) {
    return Head("SlotState", station, at) + ",\"Lane\":" + std::to_string(s.lane) + ",\"State\":" + JsonQuote(s.state) +
           ",\"Percent\":" + std::to_string(s.percent) + ",\"Step\":" + JsonQuote(s.step) +
           ",\"Port\":" + JsonQuote(s.port) + ",\"Phone\":" + Phone(s.phone) +
           ",\"JobSeconds\":" + std::to_string(s.jobSeconds) + ",\"TransactionID\":" + JsonQuote(s.transactionId) +
           ",\"Reason\":" + JsonQuote(s.reason) + "}";
}

std::string StationStateChanged(const std::string& station, const app::TimeStamp& at, StationState state, int slots,
                                const std::string& version) {
    return Head("CFX.ResourcePerformance.StationStateChanged", station, at) + ",\"NewState\":\"" + StateName(state) +
           "\",\"Slots\":" + std::to_string(slots) + ",\"Version\":" + JsonQuote(version) + "}";
}

std::string Heartbeat(const std::string& station, const app::TimeStamp& at) {
    return Head("CFX.Heartbeat", station, at) +
           ",\"HeartbeatFrequency\":\"00:00:30\",\"CFXHandle\":" + JsonQuote("quorvel." + station) + "}";
}

std::string UnitsTested(const std::string& station, const app::TimeStamp& at, const CountersReport& c) {
    std::string out = Head("CFX.Production.UnitsTested", station, at) + ",\"Total\":" + std::to_string(c.total) +
                      ",\"Fail\":" + std::to_string(c.fail) + ",\"Today\":{\"Pass\":" + std::to_string(c.todayPass) +
                      ",\"Fail\":" + std::to_string(c.todayFail) +
                      ",\"Interrupted\":" + std::to_string(c.todayInterrupted);
    if (c.phonesPerHour && std::isfinite(*c.phonesPerHour)) {
        char rate[32];
        std::snprintf(rate, sizeof rate, "%.1f", *c.phonesPerHour);
        out += ",\"PhonesPerHour\":";
        out += rate;
    }
    return out + "}}";
}

std::string PackageInUse(const std::string& station, const app::TimeStamp& at, const PackageReport& p) {
    return Head("PackageInUse", station, at) + ",\"Platform\":" + JsonQuote(p.platform) +
           ",\"Package\":" + JsonQuote(p.package) + ",\"Version\":" + JsonQuote(p.version) + "}";
}

}  // namespace quorvel::report
