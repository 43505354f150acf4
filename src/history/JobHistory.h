#pragma once
// The station's job history: one JSON line per finished job in TestLog/<yyyymmdd>.jsonl,
// named by the local day the job ended. Append may be called from any number of worker
// threads at once: each line goes out in one write(2) on an O_APPEND descriptor, so lines
// never interleave, and is on disk (fdatasync) before Append returns.

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "history/JobRecord.h"

namespace quorvel::app {

// The record as one line of flat JSON ending in "\n". Every text is valid JSON whatever
// its bytes: quotes, backslashes and control characters are escaped, bytes that are not
// UTF-8 become U+FFFD. Keys always in the same order, starting with "id".
std::string JobLine(const JobRecord& record);

class JobHistory {
public:
    // `testLogDir`: the station's TestLog folder; made on the first append when missing.
    explicit JobHistory(std::string testLogDir) : dir_(std::move(testLogDir)) {}

    // The file a job that ended at `end` goes to.
    std::string FileFor(const TimeStamp& end) const;
    const std::string& Dir() const { return dir_; }
    // Appends the record's line and syncs it. False (and the reason in `error`) when the
    // line could not be written whole; nothing is retried, the caller says it once.
    // Either way the job is remembered as its slot's last and the observer is told.
    bool Append(const JobRecord& record, std::string* error = nullptr) const;
    // Append's two halves, for a writer that orders its own writes: the line alone (no
    // retry), and remembering the job as its slot's last and telling the observer.
    bool WriteLine(const JobRecord& record, std::string* error = nullptr) const;
    void Remember(const JobRecord& record) const;

    // The last job of `slot` given to Append in this process.
    std::optional<JobRecord> LastJob(int slot) const;
    // Told of each job on the appending (worker) thread after its line is written: it
    // must return quickly. Once SetObserver returns, the old observer never runs again.
    void SetObserver(std::function<void(const JobRecord&)> observer);
    // A second observer, told the same way after the first: the reports to a broker.
    void SetReportObserver(std::function<void(const JobRecord&)> observer);

private:
    std::string dir_;
    mutable std::mutex lastMutex_;
    mutable std::map<int, JobRecord> last_;
    mutable std::mutex observerMutex_;  // guards observer_ and its calls
    std::function<void(const JobRecord&)> observer_;
    std::function<void(const JobRecord&)> reportObserver_;
};

}  // namespace quorvel::app
