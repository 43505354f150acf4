#include "app/StatisticsStore.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "app/Station.h"
#include "platform/ProfileIni.h"

namespace quorvel::app {

using platform::ProfileIni;

namespace {
std::vector<ProfileIni::Write> ZeroCounters() {
    return {{"total", "NUM", "0"}, {"fail", "NUM", "0"}};
}
}  // namespace

std::string StatisticsStore::FilePath() const {
    return station_.ConfigPath("TestResult.ini");
}

int StatisticsStore::StatisticsLoad() {
    std::lock_guard g(mutex_);
    struct stat st {};
    if (::stat(FilePath().c_str(), &st) != 0 && errno == ENOENT)
        station_.settingsStore.Written(FilePath(), ProfileIni::WriteMany(FilePath(), ZeroCounters()));
    fail_ = ProfileIni::ReadInt(FilePath(), "fail", "NUM", 0);
    total_ = ProfileIni::ReadInt(FilePath(), "total", "NUM", 0);
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

void StatisticsStore::SaveLocked() {
    const std::string total = std::to_string(total_), fail = std::to_string(fail_);
    float rate = 0;
    if (total_ != 0)
        rate = static_cast<float>((static_cast<double>(total_) - static_cast<double>(fail_)) * 100.0 / total_);
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", static_cast<double>(rate));
    station_.view.SetText(IDC_TOTAL, total);
    station_.view.SetText(IDC_FAILURES, fail);
    station_.view.SetText(IDC_PASS_RATE, std::string(text) + "%");
    station_.settingsStore.Written(FilePath(),
                                   ProfileIni::WriteMany(FilePath(), {{"total", "NUM", total}, {"fail", "NUM", fail}}));
}

void StatisticsStore::StatisticsSave() {
    std::lock_guard g(mutex_);
    SaveLocked();
}

void StatisticsStore::CountJob(bool failed) {
    std::lock_guard g(mutex_);
    ++total_;
    if (failed) ++fail_;
    SaveLocked();
}

void StatisticsStore::StatisticsReset() {
    std::lock_guard g(mutex_);
    station_.settingsStore.Written(FilePath(), ProfileIni::WriteMany(FilePath(), ZeroCounters()));
    total_ = 0;
    fail_ = 0;
    station_.view.SetText(IDC_TOTAL, "0");
    station_.view.SetText(IDC_FAILURES, "0");
    station_.view.SetText(IDC_PASS_RATE, "0.00%");
}

std::uint32_t StatisticsStore::Total() const {
    std::lock_guard g(mutex_);
    return total_;
}

std::uint32_t StatisticsStore::Fail() const {
    std::lock_guard g(mutex_);
    return fail_;
}

}  // namespace quorvel::app
