// The job history's line format, its recovery from damaged files, and the shift summary.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <thread>

#include "history/JobHistory.h"
#include "history/JobHistoryReader.h"
#include "history/JobHistorySummary.h"
#include "support/Golden.h"
#include "support/TableFile.h"
#include "support/TempDir.h"

namespace quorvel::app {
namespace {

TimeStamp At(const char* iso) {
    return *ParseIsoText(iso);
}

JobRecord Job(const std::string& id, int slot, const char* start, const char* end, JobResult result) {
    JobRecord r;
    r.jobId = id;
    r.slot = slot;
    r.start = At(start);
    r.end = At(end);
    r.durationSeconds = r.end.utc - r.start.utc;
    r.result = result;
    return r;
}

// A history line -> the line its record writes back, or refused.
TEST(JobHistoryLine, FixedFormat) {
    EXPECT_TRUE(test::MatchesCaseGolden("job-history/lines.txt", [](const std::string& line) {
        const auto r = ParseJobLine(line);
        return r ? JobLine(*r).substr(0, JobLine(*r).size() - 1) : "refused";
    }));
    const std::string id = MakeJobId(At("2026-11-23T10:40:05+01:00"), 7);
    EXPECT_EQ(id.rfind("20261123T104005-s07-", 0), 0u) << id;
    EXPECT_NE(MakeJobId(At("2026-11-23T10:40:05+01:00"), 7), id);
}

// The cases: tests/tables/job-history-bytes.txt.
TEST(JobHistoryLine, AnyBytesGiveOneValidLineThatReadsBack) {
    for (const test::TableRow& row : test::ReadTable("job-history-bytes.txt")) {
        SCOPED_TRACE(row.where);
        ASSERT_EQ(row.words.size(), 3u);
        JobRecord r = Job("id", 0, "2026-11-23T10:00:00Z", "2026-11-23T10:01:00Z", JobResult::Pass);
        for (std::string* f : {&r.jobId, &r.machine, &r.location, &r.port, &r.platform, &r.operation, &r.package,
                               &r.version, &r.failedStep, &r.errorText})
            *f = row.words[0];
        const std::string line = JobLine(r);
        ASSERT_EQ(line.find('\n'), line.size() - 1);
        for (unsigned char c : line.substr(0, line.size() - 1)) EXPECT_GE(c, 0x20);
        const auto back = ParseJobLine(std::string_view(line).substr(0, line.size() - 1));
        ASSERT_TRUE(back);
        EXPECT_EQ(back->errorText, row.words[2]);
        EXPECT_EQ(back->jobId, row.words[2]);
    }
}

// "ISO text" -> its UTC seconds, the local day its file is named by, and the text it
// writes back; or refused.
std::string TimeStampRead(const std::string& iso) {
    const auto t = ParseIsoText(iso);
    if (!t) return "refused";
    return std::to_string(t->utc) + ", day " + std::to_string(LocalDay(*t)) + ", written " + IsoText(*t);
}

TEST(JobHistoryLine, TimeStampsAndDays) {
    EXPECT_TRUE(test::MatchesCaseGolden("job-history/timestamps.txt", TimeStampRead));
    EXPECT_FALSE(ParseIsoText(""));
}

TEST(JobHistoryAppend, ConcurrentWorkersLandWholeInTheFileOfTheirLocalEndDay) {
    test::TempDir dir;
    const JobHistory history(dir.File("TestLog"));
    // 23:30 at -05:00 is already the next day in UTC: the local day names the file.
    const JobRecord late = Job("late", 0, "2026-11-23T23:00:00-05:00", "2026-11-23T23:30:00-05:00", JobResult::Pass);
    ASSERT_TRUE(history.Append(late));
    EXPECT_EQ(history.FileFor(late.end), dir.File("TestLog/20261123.jsonl"));

    constexpr int kThreads = 8, kJobs = 40;
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t)
        workers.emplace_back([&, t] {
            for (int i = 0; i < kJobs; ++i) {
                JobRecord r = Job("w", t, "2026-11-24T08:00:00Z", "2026-11-24T08:05:00Z", JobResult::Fail);
                r.errorText = std::string(500 + i * 37, static_cast<char>('a' + t));
                EXPECT_TRUE(history.Append(r));
            }
        });
    for (auto& w : workers) w.join();
    const HistoryRead read = ReadJobHistory(dir.File("TestLog"), 20261124, 20261124);
    EXPECT_EQ(read.jobs.size(), std::size_t{kThreads * kJobs});
    EXPECT_EQ(read.skippedLines, 0);
    for (const JobRecord& j : read.jobs) EXPECT_EQ(j.errorText.find_first_not_of(j.errorText[0]), std::string::npos);
    EXPECT_EQ(ReadJobHistory(dir.File("TestLog"), 20261123, 20261123).jobs, std::vector<JobRecord>{late});

    dir.Write("file", "");
    std::string error;
    JobHistory broken(dir.File("file"));
    std::vector<std::string> told;
    broken.SetObserver([&](const JobRecord& j) { told.push_back(j.jobId); });
    EXPECT_FALSE(broken.Append(late, &error));
    EXPECT_NE(error.find(dir.File("file")), std::string::npos) << error;
    // Unwritten, the job still ended: it is its slot's last and the listener hears of it.
    EXPECT_EQ(broken.LastJob(0), late);
    EXPECT_FALSE(broken.LastJob(1));
    EXPECT_EQ(told, std::vector<std::string>{"late"});
}

// "SLOT START+MINUTES RESULT, ..." (minutes from a fixed hour) -> the summary rows.
std::string Summary(const std::string& jobsText) {
    std::vector<JobRecord> jobs;
    std::istringstream in(jobsText);
    for (std::string item; std::getline(in, item, ',');) {
        JobRecord r;
        int start = 0, minutes = 0;
        char result[16] = {};
        if (std::sscanf(item.c_str(), "%d %d+%d %15s", &r.slot, &start, &minutes, result) != 4 ||
            !ParseJobResult(result))
            return "bad job: " + item;
        r.start = {1795900000 + start * 60, 0};
        r.end = {r.start.utc + minutes * 60, 0};
        r.durationSeconds = minutes * 60;
        r.result = *ParseJobResult(result);
        jobs.push_back(r);
    }
    std::ostringstream out;
    for (const SlotSummary& s : Summarise(jobs)) {
        out << (s.slot < 0 ? "all" : "slot " + std::to_string(s.slot)) << ": " << s.passes << " passed, " << s.fails
            << " failed, " << s.interrupted << " interrupted, median ";
        s.medianSeconds ? out << *s.medianSeconds << " s" : out << "none";
        s.phonesPerHour ? out << ", " << *s.phonesPerHour << " phones/h\n" : out << ", no rate\n";
    }
    return out.str();
}

TEST(JobHistorySummary, InterruptedNeverFailsMedianAndPhonesPerHour) {
    EXPECT_TRUE(test::MatchesCaseGolden("job-history/summaries.txt", Summary));
}

}  // namespace
}  // namespace quorvel::app
