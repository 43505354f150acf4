// The job history's line format, its recovery from damaged files, and the shift summary.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "history/JobHistory.h"
#include "history/JobHistoryReader.h"
#include "history/JobHistorySummary.h"
#include "support/TempDir.h"

namespace quorvel::app {
namespace {

using namespace std::string_literals;

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

TEST(JobHistoryLine, FixedFormat) {
    JobRecord r =
        Job("20261123T104005-s07-1", 7, "2026-11-23T10:40:05+01:00", "2026-11-23T10:42:35+01:00", JobResult::Fail);
    r.machine = "00:1A:2B:3C:4D:5E";
    r.location = "1-3\\PORT4";
    r.port = "(COM23)USB Port";
    r.platform = "MTK";
    r.operation = "Firmware Upgrade";
    r.package = "/pkg/scatter.txt";
    r.version = "MT6580_V1.2";
    r.bytesSent = 1048576;
    r.failedStep = "DA download";
    r.errorText = "Download failed!";
    r.device = {"MT6580", "", "356938035643809"};  // a member not known is left out
    EXPECT_EQ(
        JobLine(r),
        R"({"id":"20261123T104005-s07-1","machine":"00:1A:2B:3C:4D:5E","slot":7,"location":"1-3\\PORT4",)"
        R"("port":"(COM23)USB Port","platform":"MTK","operation":"Firmware Upgrade","package":"/pkg/scatter.txt",)"
        R"("version":"MT6580_V1.2","start":"2026-11-23T10:40:05+01:00","end":"2026-11-23T10:42:35+01:00",)"
        R"("duration_s":150,"bytes":1048576,"result":"FAIL","step":"DA download","error":"Download failed!",)"
        R"("device":{"chip":"MT6580","imei":"356938035643809"}})"
        "\n");
    EXPECT_EQ(ParseJobLine(JobLine(r).substr(0, JobLine(r).size() - 1)), r);
    const std::string id = MakeJobId(r.start, 7);
    EXPECT_EQ(id.rfind("20261123T104005-s07-", 0), 0u) << id;
    EXPECT_NE(MakeJobId(r.start, 7), id);
}

std::string Replaced(int n) {
    std::string s;
    while (n-- > 0) s += "\xEF\xBF\xBD";  // U+FFFD
    return s;
}

TEST(JobHistoryLine, AnyBytesGiveOneValidLineThatReadsBack) {
    const struct {
        const char* label;
        std::string text;
        std::string readBack;
    } rows[] = {
        {"quotes_backslash", R"(a"b\c\"d)", R"(a"b\c\"d)"},
        {"controls", "l1\nl2\r\t\x01\x1f\x7f end\0x"s, "l1\nl2\r\t\x01\x1f\x7f end\0x"s},
        {"record_start_inside", R"({"id":"x"})", R"({"id":"x"})"},
        {"chinese_and_emoji", "下载失败 \xF0\x9F\x93\xB1", "下载失败 \xF0\x9F\x93\xB1"},
        {"invalid_utf8",
         "a\xFF"
         "b\xC3",
         "a\xEF\xBF\xBD"
         "b\xEF\xBF\xBD"},
        {"overlong_and_surrogate", "\xC0\xAF\xED\xA0\x80", Replaced(5)},
        {"gb2312_bytes", "\xCF\xC2\xD4\xD8", Replaced(4)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        JobRecord r = Job("id", 0, "2026-11-23T10:00:00Z", "2026-11-23T10:01:00Z", JobResult::Pass);
        for (std::string* f : {&r.jobId, &r.machine, &r.location, &r.port, &r.platform, &r.operation, &r.package,
                               &r.version, &r.failedStep, &r.errorText})
            *f = row.text;
        const std::string line = JobLine(r);
        ASSERT_EQ(line.find('\n'), line.size() - 1);
        for (unsigned char c : line.substr(0, line.size() - 1)) EXPECT_GE(c, 0x20);
        const auto back = ParseJobLine(std::string_view(line).substr(0, line.size() - 1));
        ASSERT_TRUE(back);
        EXPECT_EQ(back->errorText, row.readBack);
        EXPECT_EQ(back->jobId, row.readBack);
    }
}

TEST(JobHistoryLine, TimeStampsAndDays) {
    const struct {
        const char* iso;
        std::int64_t utc;
        int day;  // the local day the file is named by
    } good[] = {
        {"2026-11-23T23:30:00-05:00", 1795494600, 20261123}, {"2026-11-24T04:30:00Z", 1795494600, 20261124},
        {"2026-11-24T10:00:00+05:30", 1795494600, 20261124}, {"2024-02-29T00:00:00+00:00", 1709164800, 20240229},
        {"1970-01-01T00:00:00+14:00", -14 * 3600, 19700101},
    };
    for (const auto& row : good) {
        SCOPED_TRACE(row.iso);
        const auto t = ParseIsoText(row.iso);
        ASSERT_TRUE(t);
        EXPECT_EQ(t->utc, row.utc);
        EXPECT_EQ(LocalDay(*t), row.day);
        if (row.iso[19] != 'Z') {
            EXPECT_EQ(IsoText(*t), row.iso);
        }
    }
    for (const char* bad : {"2026-02-29T10:00:00Z", "2026-11-23T24:00:00Z", "2026-11-23T10:00:00", "2026-11-23",
                            "2026-11-23 10:00:00Z", "2026-11-23T10:00:00+1:00", "2026-11-23T10:00:00Zjunk", ""})
        EXPECT_FALSE(ParseIsoText(bad)) << bad;
}

// What a power loss, a full disk or a hand edit leaves behind.
TEST(JobHistoryRead, DamagedLinesAreSkippedNeverFatal) {
    const std::string a = JobLine(Job("a", 1, "2026-11-23T10:00:00Z", "2026-11-23T10:01:00Z", JobResult::Pass));
    const std::string b = JobLine(Job("b", 2, "2026-11-23T10:00:00Z", "2026-11-23T10:02:00Z", JobResult::Fail));
    const std::string cut = b.substr(0, b.size() / 2);
    const struct {
        const char* label;
        std::string contents;
        std::vector<std::string> ids;
        int skipped;
    } rows[] = {
        {"cut_last_line", a + cut, {"a"}, 1},
        {"cut_then_appended_after", a + cut + b, {"a", "b"}, 0},
        {"zeros_then_appended_after", a + std::string(40, '\0') + b, {"a", "b"}, 0},
        {"zeros_at_end", a + std::string(4096, '\0'), {"a"}, 1},
        {"crlf_and_blank_lines", a.substr(0, a.size() - 1) + "\r\n\n  \n" + b, {"a", "b"}, 0},
        {"not_records",
         "garbage\n{}\n[1,2]\n{\"id\":\"n\",\"slot\":{\"x\":1}}\n" +
             std::string(
                 R"({"id":"w","slot":1,"start":"2026-11-23T10:00:00Z","end":"2026-11-23T10:01:00Z","result":"ok"})") +
             "\n" + a,
         {"a"},
         5},
        {"unknown_keys_any_order",
         R"({"result":"interrupted","extra":true,"end":"2026-11-23T10:01:00Z","slot":4,"id":"u","start":"2026-11-23T10:00:00Z"})"
         "\n",
         {"u"},
         0},
        // A later member nested in the identity, or a list, is not read and costs nothing.
        {"nested_additions",
         R"({"id":"v","slot":1,"start":"2026-11-23T10:00:00Z","end":"2026-11-23T10:01:00Z","result":"PASS",)"
         R"("device":{"serial":"S1","board":{"rev":[1,2]}},"tags":["a"]})"
         "\n",
         {"v"},
         0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        test::TempDir dir;
        dir.Write("20261123.jsonl", row.contents);
        const HistoryRead read = ReadJobHistory(dir.Path());
        std::vector<std::string> ids;
        for (const JobRecord& j : read.jobs) ids.push_back(j.jobId);
        EXPECT_EQ(ids, row.ids);
        EXPECT_EQ(read.skippedLines, row.skipped);
    }
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

TEST(JobHistorySummary, InterruptedNeverFailsMedianAndPhonesPerHour) {
    using R = JobResult;
    struct J {
        int slot;
        int startMin;
        int minutes;
        R result;
    };
    const struct {
        const char* label;
        std::vector<J> jobs;
        std::vector<SlotSummary> expected;  // the per-slot rows, then "all"
    } rows[] = {
        {"odd_count_median_and_a_short_span_has_no_rate",
         {{0, 0, 3, R::Pass}, {0, 3, 1, R::Fail}, {0, 4, 2, R::Pass}},
         {{0, 2, 1, 0, 120.0, {}}, {-1, 2, 1, 0, 120.0, {}}}},
        {"even_count_median_is_mean_of_middle",
         {{1, 0, 4, R::Pass}, {1, 10, 1, R::Pass}, {1, 20, 3, R::Pass}, {1, 30, 2, R::Fail}},
         {{1, 3, 1, 0, 150.0, 7.5}, {-1, 3, 1, 0, 150.0, 7.5}}},
        {"interrupted_counts_apart_and_leaves_times_alone",
         {{2, 0, 10, R::Pass}, {2, 10, 50, R::Interrupted}, {2, 60, 20, R::Pass}, {2, 80, 10, R::Pass}},
         {{2, 3, 0, 1, 600.0, 2.0}, {-1, 3, 0, 1, 600.0, 2.0}}},
        {"only_interrupted_has_no_figures", {{3, 0, 5, R::Interrupted}}, {{3, 0, 0, 1, {}, {}}, {-1, 0, 0, 1, {}, {}}}},
        {"zero_span_has_no_rate", {{4, 0, 0, R::Fail}}, {{4, 0, 1, 0, 0.0, {}}, {-1, 0, 1, 0, 0.0, {}}}},
        {"station_spans_all_slots_and_few_jobs_have_no_rate",
         {{5, 0, 30, R::Pass}, {6, 30, 30, R::Fail}, {5, 60, 30, R::Pass}},
         {{5, 2, 0, 0, 1800.0, {}}, {6, 0, 1, 0, 1800.0, {}}, {-1, 2, 1, 0, 1800.0, 2.0}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        std::vector<JobRecord> jobs;
        for (const J& j : row.jobs) {
            JobRecord r;
            r.slot = j.slot;
            r.start = {1795900000 + j.startMin * 60, 0};
            r.end = {r.start.utc + j.minutes * 60, 0};
            r.durationSeconds = j.minutes * 60;
            r.result = j.result;
            jobs.push_back(r);
        }
        const auto got = Summarise(jobs);
        ASSERT_EQ(got.size(), row.expected.size());
        for (std::size_t i = 0; i < got.size(); ++i) {
            const SlotSummary &g = got[i], &e = row.expected[i];
            EXPECT_EQ(std::tie(g.slot, g.passes, g.fails, g.interrupted),
                      std::tie(e.slot, e.passes, e.fails, e.interrupted));
            EXPECT_EQ(g.medianSeconds, e.medianSeconds) << "slot " << g.slot;
            ASSERT_EQ(g.phonesPerHour.has_value(), e.phonesPerHour.has_value()) << "slot " << g.slot;
            if (e.phonesPerHour) {
                EXPECT_DOUBLE_EQ(*g.phonesPerHour, *e.phonesPerHour) << "slot " << g.slot;
            }
        }
    }
}

}  // namespace
}  // namespace quorvel::app
