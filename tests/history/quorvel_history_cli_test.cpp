// The history tool run as a program: filters, output forms and exit codes, each run
// against tests/golden/quorvel-history/.
#include <gtest/gtest.h>

#include "history/JobHistory.h"
#include "support/Golden.h"
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

    // A fixed zone: the table shows local times.
    const std::pair<const char*, std::string> runs[] = {
        {"no_folder", ""},
        {"help", "--help"},
        {"slot_too_high", "--slot 17 " + d},
        {"slot_zero", "--slot 0 " + d},
        {"result_unknown", "--result maybe " + d},
        {"since_not_a_time", "--since yesterday " + d},
        {"csv_and_json", "--csv --json " + d},
        {"unknown_option", "--bogus " + d},
        {"folder_missing", d + "nowhere"},
        {"folder_not_a_station", d + "Config"},
        {"all", d},
        {"testlog_folder", d + "TestLog"},
        {"slot", "--slot 4 " + d},
        {"result_interrupted", "--result interrupted " + d},
        {"result_fail", "--result fail " + d},
        {"since_date", "--since 2026-11-24 " + d},
        {"until_date", "--until 2026-11-23 " + d},
        {"since_until_minutes", "--since 2026-11-23T10:30 --until 2026-11-23T11:00:30 " + d},
        {"since_utc", "--since 2026-11-23T09:30:00Z " + d},
        {"csv_slot", "--csv --slot 4 " + d},
        {"json_pass", "--json --result pass " + d},
        // Two jobs on a slot make no rate; three over a day do.
        {"summary_csv", "--summary --csv " + d},
        {"summary_interrupted", "--summary --result interrupted " + d},
    };
    for (const auto& [name, args] : runs) {
        EXPECT_TRUE(MatchesGolden(std::string("quorvel-history/") + name + ".txt",
                                  RunTranscript("quorvel-history", args, {{d, "$DIR/"}}, "TZ=UTC-1 ")));
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
    ASSERT_TRUE(history.Append(
        Job(1, "Télé (COM3)", "2026-11-23T10:00:00+01:00", "2026-11-23T10:03:00+01:00", JobResult::Pass)));
    EXPECT_TRUE(MatchesGolden("quorvel-history/port_column.txt",
                              RunTranscript("quorvel-history", dir.Path(), {{dir.Path(), "$DIR/"}}, "TZ=UTC-1 ")));
}

}  // namespace
}  // namespace quorvel::test
