#include "report/ReportOutbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "history/JobHistoryReader.h"
#include "platform/AtomicFile.h"
#include "platform/JsonText.h"
#include "platform/UniqueFd.h"

namespace quorvel::report {

namespace {

std::string DayFile(const std::string& dir, int day) {
    char name[32];
    std::snprintf(name, sizeof name, "/%08d.jsonl", day);
    return dir + name;
}

// The bytes of `path` from `offset` on; empty when there are none.
std::string ReadFrom(const std::string& path, std::uint64_t offset) {
    platform::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return {};
    if (static_cast<std::uint64_t>(st.st_size) <= offset) return {};
    std::string bytes(static_cast<std::size_t>(st.st_size - static_cast<off_t>(offset)), '\0');
    if (lseek(fd.get(), static_cast<off_t>(offset), SEEK_SET) < 0) return {};
    bytes.resize(platform::ReadFully(fd.get(), bytes.data(), bytes.size()));
    return bytes;
}

}  // namespace

ReportOutbox::ReportOutbox(std::string testLogDir, int today) : dir_(std::move(testLogDir)) {
    while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
    mark_ = {today, 0};
    std::string text;
    if (platform::ReadWholeFile(MarkPath(), text)) {
        const auto o = platform::ReadFlatJsonObject(text, platform::LoneSurrogate::REPLACE);
        if (o && o->count("day") && o->count("offset") && o->at("day").kind == platform::JsonValue::NUMBER &&
            o->at("offset").kind == platform::JsonValue::NUMBER && o->at("day").number >= 19700101 &&
            o->at("day").number <= 99991231 && o->at("offset").number >= 0) {
            mark_ = {static_cast<int>(o->at("day").number), static_cast<std::uint64_t>(o->at("offset").number)};
            if (o->count("id")) lastAckedId_ = o->at("id").text;
        }
    }
    read_ = mark_;
    saved_ = {-1, 0};
}

std::vector<int> ReportOutbox::DaysFrom(int day) const {
    std::vector<int> days;
    DIR* d = opendir(dir_.c_str());
    if (!d) return days;
    while (const dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() != 14 || name.compare(8, 6, ".jsonl") != 0) continue;
        if (!std::all_of(name.begin(), name.begin() + 8, [](char c) { return c >= '0' && c <= '9'; })) continue;
        const int n = std::stoi(name.substr(0, 8));
        if (n >= day) days.push_back(n);
    }
    closedir(d);
    std::sort(days.begin(), days.end());
    return days;
}

std::vector<OutboxJob> ReportOutbox::Next(std::size_t max) {
    std::vector<OutboxJob> jobs;
    for (const int day : DaysFrom(read_.day)) {
        if (jobs.size() >= max) break;
        if (day != read_.day) read_ = {day, 0};
        const std::string bytes = ReadFrom(DayFile(dir_, day), read_.offset);
        std::size_t at = 0;
        // Only whole lines: the last one may still be on its way.
        for (std::size_t nl; jobs.size() < max && (nl = bytes.find('\n', at)) != std::string::npos; at = nl + 1) {
            const std::string_view line(bytes.data() + at, nl - at);
            const Position end{day, read_.offset + nl + 1};
            auto record = app::ParseJobLine(line);
            if (!record) continue;  // not a record: nothing to send, the mark may pass it
            const std::size_t from = line.rfind("{\"id\":");
            OutboxJob job{std::move(*record), std::string(line.substr(from == std::string_view::npos ? 0 : from)),
                          nextTicket_++};
            inFlight_.push_back({job.ticket, end, job.record.jobId});
            jobs.push_back(std::move(job));
        }
        read_.offset += at;
        // Unparsable lines after the last job must not hold the mark back for ever.
        if (inFlight_.empty()) mark_ = read_;
    }
    return jobs;
}

void ReportOutbox::Rewind() {
    inFlight_.clear();
    read_ = mark_;
}

void ReportOutbox::Acknowledge(std::uint64_t ticket) {
    for (auto& s : inFlight_)
        if (s.ticket == ticket) s.acked = true;
    while (!inFlight_.empty() && inFlight_.front().acked) {
        mark_ = inFlight_.front().end;
        lastAckedId_ = inFlight_.front().id;
        inFlight_.pop_front();
    }
}

bool ReportOutbox::Save() {
    if (mark_ == saved_) return true;
    const std::string text = "{\"v\":1,\"day\":" + std::to_string(mark_.day) +
                             ",\"offset\":" + std::to_string(mark_.offset) +
                             ",\"id\":" + platform::JsonQuote(lastAckedId_) + "}\n";
    if (!platform::ReplaceFileAtomically(MarkPath(), text)) return false;
    saved_ = mark_;
    return true;
}

}  // namespace quorvel::report
