// The history tool run as a program: filters, output forms and exit codes in one table.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "history/JobHistory.h"
#include "support/RunTool.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

using app::JobResult;

app::JobRecord Job(int slot, const char* port, const char* start, const char* end, JobResult result) {
    app::JobRecord r;
    r.jobId = port;
    r.slot = slot;
    r.port = port;
    r.start = *app::ParseIsoText(start);
    r.end = *app::ParseIsoText(end);
    r.durationSeconds = r.end.utc - r.start.utc;
    r.result = result;
    return r;
}

TEST(QuorvelHistoryTool, FiltersFormsAndExitCodes) {
    TempDir dir;
    dir.Write("Config/CommonSetting.ini", "");
    const app::JobHistory history(dir.File("TestLog"));
    app::JobRecord failed = Job(3, "COM12", "2026-11-23T10:40:00+01:00", "2026-11-23T10:43:00+01:00", JobResult::Fail);
    failed.failedStep = "DA";
    failed.errorText = "bad, \"crc\"";
    for (const app::JobRecord& r :
         {Job(3, "COM11", "2026-11-23T10:00:00+01:00", "2026-11-23T10:05:00+01:00", JobResult::Pass), failed,
          Job(5, "COM13", "2026-11-23T11:00:00+01:00", "2026-11-23T11:01:00+01:00", JobResult::Interrupted),
          Job(5, "COM14", "2026-11-24T09:00:00+01:00", "2026-11-24T09:04:00+01:00", JobResult::Pass)})
        ASSERT_TRUE(history.Append(r));
    const std::string damaged = app::JobLine(failed);
    dir.Write("TestLog/20261124.jsonl",
              dir.Read("TestLog/20261124.jsonl") + damaged.substr(0, damaged.size() / 2));  // power loss
    const std::string d = dir.Path();

    const struct {
        std::string args;
        int exitCode;
        std::vector<std::string> shown;
        std::vector<std::string> notShown;
    } rows[] = {
        {"", 2, {"no station folder given"}, {"Usage:"}},
        {"--help", 0, {"Usage:", "Exit status"}, {}},
        {"--slot 17 " + d, 2, {"--slot"}, {}},
        {"--slot 0 " + d, 2, {"--slot"}, {}},
        {"--result maybe " + d, 2, {"--result"}, {}},
        {"--since yesterday " + d, 2, {"--since"}, {}},
        {"--csv --json " + d, 2, {"exclude"}, {}},
        {"--bogus " + d, 2, {"unknown option"}, {}},
        {d + "nowhere", 1, {"not a station folder"}, {}},
        {d + "Config", 1, {"not a station folder"}, {}},
        {d, 0, {"COM11", "COM12", "COM13", "COM14", "DA: bad, \"crc\"", "4 jobs", "1 damaged line"}, {}},
        {d + "TestLog", 0, {"COM11", "COM14", "4 jobs"}, {}},
        {"--slot 4 " + d, 0, {"COM11", "COM12", "10:05:00     4  PASS"}, {"COM13", "COM14"}},
        {"--result interrupted " + d, 0, {"COM13", "interrupted"}, {"COM11", "COM12", "COM14"}},
        {"--result fail " + d, 0, {"COM12"}, {"COM11", "COM13", "COM14"}},
        {"--since 2026-11-24 " + d, 0, {"COM14"}, {"COM11", "COM12", "COM13"}},
        {"--until 2026-11-23 " + d, 0, {"COM11", "COM12", "COM13"}, {"COM14"}},
        {"--since 2026-11-23T10:30 --until 2026-11-23T11:00:30 " + d, 0, {"COM12"}, {"COM11", "COM13", "COM14"}},
        {"--since 2026-11-23T09:30:00Z " + d, 0, {"COM12", "COM13", "COM14"}, {"COM11"}},
        {"--csv --slot 4 " + d,
         0,
         {"id,machine,slot,location,port,platform,operation,package,version,start,end,duration_s,bytes,result,step,"
          "error\r\n",
          ",DA,\"bad, \"\"crc\"\"\"\r\n", "COM11,,4,,COM11,", "2026-11-23T10:05:00+01:00,300,,PASS,"},
         {"COM13"}},
        {"--json --result pass " + d, 0, {"[\n{\"id\":\"COM11\"", "\"slot\":4,", "\"port\":\"COM14\"", "\n]\n"}, {"COM12"}},
        {"--summary --csv " + d,
         0,
         // Two jobs on a slot make no rate; three over a day do.
         {"slot,passes,fails,interrupted,median_s,phones_per_hour\r\n", "4,1,1,0,240.0,\r\n",
          "6,1,0,1,240.0,\r\n", "all,2,1,1,240.0,0.1\r\n"},
         {}},
        {"--summary --result interrupted " + d, 0, {"Phones/h", "  -\n"}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.args);
        const auto r = RunCommand(ToolPath("quorvel-history") + " " + row.args);
        EXPECT_EQ(r.exitCode, row.exitCode) << r.out;
        for (const std::string& s : row.shown) EXPECT_NE(r.out.find(s), std::string::npos) << s << "\n" << r.out;
        for (const std::string& s : row.notShown) EXPECT_EQ(r.out.find(s), std::string::npos) << s << "\n" << r.out;
        if (row.exitCode == 2) {
            EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
        }
    }
}

// The Port column is as wide as its widest name, up to 30 characters; a longer name
// keeps its end, where the COM number stands, so the columns after it stay in place.
TEST(QuorvelHistoryTool, PortColumnNeverOverflows) {
    TempDir dir;
    const app::JobHistory history(dir.File("TestLog"));
    app::JobRecord failed = Job(0, "MediaTek PreLoader USB VCOM (Android) (COM115)", "2026-11-23T10:00:00+01:00",
                                "2026-11-23T10:02:00+01:00", JobResult::Fail);
    failed.failedStep = "DA";
    failed.errorText = "no answer";
    ASSERT_TRUE(history.Append(failed));
    ASSERT_TRUE(history.Append(Job(1, "Télé (COM3)", "2026-11-23T10:00:00+01:00", "2026-11-23T10:03:00+01:00",
                                   JobResult::Pass)));
    const auto r = RunCommand("TZ=UTC-1 " + ToolPath("quorvel-history") + " " + dir.Path());
    EXPECT_EQ(r.out,
              "Ended                Slot  Result          Time  Port                            Step / error\n"
              "2026-11-23 10:02:00     1  FAIL            2:00  \u2026r USB VCOM (Android) (COM115)  DA: no answer\n"
              "2026-11-23 10:03:00     2  PASS            3:00  Télé (COM3)\n"
              "2 jobs\n");
}

}  // namespace
}  // namespace quorvel::test
