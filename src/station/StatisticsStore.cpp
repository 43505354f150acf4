#include "station/StatisticsStore.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "history/JobHistoryReader.h"
#include "platform/ErrnoText.h"
#include "platform/ProfileIni.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::app {

using platform::ProfileIni;

namespace {
constexpr const char* kLastSection = "last";
constexpr const char* kLastKey = "JOB";
}  // namespace

std::string StatisticsStore::FilePath() const {
    return station_.ConfigPath("TestResult.ini");
}

int StatisticsStore::StatisticsLoad() {
    std::lock_guard g(mutex_);
    struct stat st {};
    if (::stat(FilePath().c_str(), &st) != 0 && errno == ENOENT)
        station_.settingsStore.Written(
            FilePath(), ProfileIni::WriteMany(FilePath(), {{"total", "NUM", "0"}, {"fail", "NUM", "0"}}));
    fail_ = ProfileIni::ReadInt(FilePath(), "fail", "NUM", 0);
    total_ = ProfileIni::ReadInt(FilePath(), "total", "NUM", 0);
    lastJob_ = ProfileIni::ReadString(FilePath(), kLastSection, kLastKey, "", 256);
    // A kill between a job's history line and its counters: the line carries the counters
    // it was to be saved with.
    if (!lastJob_.empty() && !station_.ExeDir().empty()) {
        const auto last = LastJobRecord(station_.history.Dir());
        if (last && last->jobId != lastJob_ && last->countedTotal && last->countedFail &&
            (*last->countedTotal != total_ || *last->countedFail != fail_)) {
            char text[512];
            std::snprintf(text, sizeof text, texts::kUncountedJobFormat, last->jobId.c_str(), last->slot + 1,
                          JobResultText(last->result));
            std::fprintf(stderr, "quorvel: %s\n", text);
            station_.settingsStore.UiLog(text);
            station_.view.SetNotice(text);
            total_ = *last->countedTotal;
            fail_ = *last->countedFail;
            lastJob_ = last->jobId;
            pending_.push_back({std::nullopt, false, true, total_, fail_, lastJob_});
            FlushLocked();
        }
    }
    float rate = 0;
    if (total_ > 0) rate = static_cast<float>(static_cast<std::uint32_t>(total_ - fail_) * 100.0 / total_);
    char text[64];
    std::snprintf(text, sizeof text, "%u", total_);
    station_.view.SetText(IDC_TOTAL, text);
    std::snprintf(text, sizeof text, "%u", fail_);
    station_.view.SetText(IDC_FAILURES, text);
    std::snprintf(text, sizeof text, "%.2lf%%", static_cast<double>(rate));
    station_.view.SetText(IDC_PASS_RATE, text);
    return 1;
}

void StatisticsStore::ShowLocked() {
    const std::string total = std::to_string(total_), fail = std::to_string(fail_);
    float rate = 0;
    if (total_ != 0)
        rate = static_cast<float>((static_cast<double>(total_) - static_cast<double>(fail_)) * 100.0 / total_);
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(rate));
    station_.view.SetText(IDC_TOTAL, total);
    station_.view.SetText(IDC_FAILURES, fail);
    station_.view.SetText(IDC_PASS_RATE, std::string(text) + "%");
}

void StatisticsStore::QueueLocked(std::optional<JobRecord> job, bool saveCounters) {
    if (job) {
        if (saveCounters) lastJob_ = job->jobId;
        job->countedTotal = total_;
        job->countedFail = fail_;
    }
    pending_.push_back({std::move(job), false, saveCounters, total_, fail_, lastJob_});
    FlushLocked();
}

void StatisticsStore::FlushLocked() {
    while (!pending_.empty()) {
        Entry& e = pending_.front();
        if (e.job && !e.lineWritten) {
            std::string error;
            if (!station_.history.WriteLine(*e.job, &error)) return Failing(error);
            e.lineWritten = true;
        }
        if (e.saveCounters) {
            std::vector<ProfileIni::Write> writes{{"total", "NUM", std::to_string(e.total)},
                                                  {"fail", "NUM", std::to_string(e.fail)}};
            if (!e.lastJob.empty()) writes.push_back({kLastSection, kLastKey, e.lastJob});
            if (!ProfileIni::WriteMany(FilePath(), writes))
                return Failing("Cannot write " + FilePath() + ": " + platform::ErrnoText(errno));
        }
        pending_.pop_front();
    }
    if (failing_) {
        failing_ = false;
        std::fprintf(stderr, "quorvel: %s\n", texts::kSavingResumed);
        station_.settingsStore.UiLog(texts::kSavingResumed);
        station_.view.SetNotice(texts::kSavingResumed);
    }
}

// Said at once, and once per spell of failures.
void StatisticsStore::Failing(const std::string& what) {
    lastError_ = what;
    if (failing_) return;
    failing_ = true;
    char text[1024];
    std::snprintf(text, sizeof text, texts::kSavingFailedFormat, what.c_str());
    std::fprintf(stderr, "quorvel: %s\n", text);
    station_.settingsStore.UiLog(text);
    station_.view.SetNotice(text);
}

void StatisticsStore::StatisticsSave() {
    std::lock_guard g(mutex_);
    ShowLocked();
    QueueLocked(std::nullopt);
}

void StatisticsStore::CountJob(bool failed) {
    std::lock_guard g(mutex_);
    ++total_;
    if (failed) ++fail_;
    ShowLocked();
    QueueLocked(std::nullopt);
}

void StatisticsStore::RecordJob(JobRecord job, bool count) {
    {
        std::lock_guard g(mutex_);
        if (count) {
            ++total_;
            if (job.result != JobResult::Pass) ++fail_;
            ShowLocked();
        }
        QueueLocked(job, count);
    }
    station_.history.Remember(job);
}

void StatisticsStore::StatisticsReset() {
    std::lock_guard g(mutex_);
    total_ = 0;
    fail_ = 0;
    station_.view.SetText(IDC_TOTAL, "0");
    station_.view.SetText(IDC_FAILURES, "0");
    station_.view.SetText(IDC_PASS_RATE, "0.00%");
    QueueLocked(std::nullopt);
}

void StatisticsStore::Retry() {
    std::unique_lock g(mutex_, std::try_to_lock);
    if (g.owns_lock() && !pending_.empty()) FlushLocked();
}

bool StatisticsStore::Close() {
    std::lock_guard g(mutex_);
    FlushLocked();
    if (pending_.empty()) return true;
    char text[512];
    std::snprintf(text, sizeof text, texts::kUnsavedAtCloseFormat, pending_.size(), lastError_.c_str());
    std::fprintf(stderr, "quorvel: %s\n", text);
    station_.settingsStore.UiLog(text);
    // The unsaved history lines in full, so a journal keeps what the disk could not.
    for (const Entry& e : pending_)
        if (e.job && !e.lineWritten) std::fprintf(stderr, "quorvel: unsaved history: %s", JobLine(*e.job).c_str());
    const Entry& last = pending_.back();
    std::fprintf(stderr, "quorvel: unsaved counters: total %u, fail %u\n", last.total, last.fail);
    return false;
}

std::uint32_t StatisticsStore::Total() const {
    std::lock_guard g(mutex_);
    return total_;
}

std::uint32_t StatisticsStore::Fail() const {
    std::lock_guard g(mutex_);
    return fail_;
}

std::size_t StatisticsStore::Pending() const {
    std::lock_guard g(mutex_);
    return pending_.size();
}

}  // namespace quorvel::app
