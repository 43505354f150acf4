#include "history/JobHistory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/ErrnoText.h"
#include "platform/JsonText.h"
#include "platform/UniqueFd.h"

namespace quorvel::app {
namespace {

void Field(std::string& out, const char* key, const std::string& value) {
    out += out.size() > 1 ? ",\"" : "\"";
    out += key;
    out += "\":";
    out += platform::JsonQuote(value);
}

void Number(std::string& out, const char* key, long long value) {
    out += ",\"";
    out += key;
    out += "\":";
    out += std::to_string(value);
}

}  // namespace

std::string JobLine(const JobRecord& r) {
    std::string out = "{";
    Field(out, "id", r.jobId);
    Field(out, "machine", r.machine);
    Number(out, "slot", r.slot);
    Field(out, "location", r.location);
    Field(out, "port", r.port);
    Field(out, "platform", r.platform);
    Field(out, "operation", r.operation);
    Field(out, "package", r.package);
    Field(out, "version", r.version);
    Field(out, "start", IsoText(r.start));
    Field(out, "end", IsoText(r.end));
    Number(out, "duration_s", r.durationSeconds);
    out += ",\"bytes\":";
    out += r.bytesSent ? std::to_string(*r.bytesSent) : "null";
    Field(out, "result", JobResultText(r.result));
    Field(out, "step", r.failedStep);
    Field(out, "error", r.errorText);
    if (!r.device.Empty()) {
        std::string device = "{";
        for (auto [key, value] :
             {std::pair{"chip", &r.device.chip}, {"serial", &r.device.serial}, {"imei", &r.device.imei}})
            if (!value->empty()) Field(device, key, *value);
        out += ",\"device\":" + device + "}";
    }
    if (r.countedTotal && r.countedFail) {
        Number(out, "total", *r.countedTotal);
        Number(out, "fail", *r.countedFail);
    }
    out += "}\n";
    return out;
}

std::string JobHistory::FileFor(const TimeStamp& end) const {
    char name[32];
    std::snprintf(name, sizeof name, "%08d.jsonl", LocalDay(end));
    return dir_ + (dir_.empty() || dir_.back() == '/' ? "" : "/") + name;
}

bool JobHistory::Append(const JobRecord& record, std::string* error) const {
    const bool written = WriteLine(record, error);
    Remember(record);
    return written;
}

void JobHistory::Remember(const JobRecord& record) const {
    {
        std::lock_guard g(lastMutex_);
        last_[record.slot] = record;
    }
    std::lock_guard g(observerMutex_);
    if (observer_) observer_(record);
    if (reportObserver_) reportObserver_(record);
}

std::optional<JobRecord> JobHistory::LastJob(int slot) const {
    std::lock_guard g(lastMutex_);
    const auto it = last_.find(slot);
    if (it == last_.end()) return std::nullopt;
    return it->second;
}

void JobHistory::SetObserver(std::function<void(const JobRecord&)> observer) {
    std::lock_guard g(observerMutex_);
    observer_ = std::move(observer);
}

void JobHistory::SetReportObserver(std::function<void(const JobRecord&)> observer) {
    std::lock_guard g(observerMutex_);
    reportObserver_ = std::move(observer);
}

bool JobHistory::WriteLine(const JobRecord& record, std::string* error) const {
    const std::string line = JobLine(record);
    const std::string path = FileFor(record.end);
    const auto fail = [&](const char* what) {
        if (error) *error = std::string(what) + " " + path + ": " + platform::ErrnoText(errno);
        return false;
    };
    if (::mkdir(dir_.c_str(), 0775) != 0 && errno != EEXIST) return fail("Cannot make the folder of");
    const platform::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0664));
    if (!fd) return fail("Cannot open");
    ssize_t written;
    do {
        written = ::write(fd.get(), line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    bool ok = written == static_cast<ssize_t>(line.size());
    if (!ok) {
        if (written >= 0) errno = ENOSPC;  // a short write on a regular file: the disk is full
        fail("Cannot write");
    } else if (::fdatasync(fd.get()) != 0) {
        ok = fail("Cannot sync");
    }
    return ok;
}

}  // namespace quorvel::app
