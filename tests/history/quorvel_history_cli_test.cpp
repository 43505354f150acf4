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
        {"collect_not_a_broker", "--collect http://broker:1883 " + d + "gathered"},
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

// Two stations' folders and a folder gathered from the broker: a Station column, the
// phone's identity, a summary per station, filters by station and phone; a job both in
// a station's folder and among the gathered ones counts once.
TEST(QuorvelHistoryTool, ManyStationsInOneHistory) {
    TempDir dir;
    app::JobRecord a1 = Job(0, "COM3", "2026-11-24T08:00:00+01:00", "2026-11-24T08:03:00+01:00", JobResult::Pass);
    a1.device = {"MT6765", "SIM0000000001", "350000000000013"};
    app::JobRecord a2 = Job(1, "COM4", "2026-11-24T08:10:00+01:00", "2026-11-24T08:12:00+01:00", JobResult::Fail);
    a2.failedStep = "Downloading";
    a2.device.serial = "0123ABCDEF";  // no IMEI: the serial stands for the phone
    app::JobRecord b1 = Job(0, "COM7", "2026-11-24T08:20:00+01:00", "2026-11-24T08:24:00+01:00", JobResult::Pass);
    for (app::JobRecord* r : {&a1, &a2}) r->machine = "00:1a:2b:3c:4d:5e";
    dir.Write("a/Config/CommonSetting.ini", "");
    ASSERT_TRUE(app::JobHistory(dir.File("a/TestLog")).Append(a1));
    ASSERT_TRUE(app::JobHistory(dir.File("a/TestLog")).Append(a2));
    // Gathered: bench-2's job as the broker carried it (no identity), and station a's
    // second job again.
    std::string job = app::JobLine(b1);
    job.pop_back();
    std::string again = app::JobLine(a2);
    again.pop_back();
    const auto payload = [](const std::string& station, const std::string& id, const std::string& line) {
        return R"({"v":1,"MessageName":"CFX.Production.WorkCompleted","Station":")" + station +
               R"(","TransactionID":")" + id + R"(","Job":)" + line + "}\n";
    };
    dir.Write("gathered/bench-2/20261124.jsonl", payload("bench-2", "COM7", job) + payload("bench-2", "COM4", again));
    const std::string d = dir.Path();
    std::string runs;
    for (const std::string args : {"a gathered", "--summary a gathered", "--summary --station bench-2 a gathered",
                                   "--phone abcdef --csv a gathered", "--phone 0013 --json a gathered"})
        runs += RunTranscript("quorvel-history", args, {{d, "$DIR/"}}, "cd " + d + " && TZ=UTC-1 ");
    EXPECT_TRUE(MatchesGolden("quorvel-history/stations.txt", runs));
}

}  // namespace
}  // namespace quorvel::test
