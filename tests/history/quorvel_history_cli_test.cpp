// The history tool run as a program: filters, output forms and exit codes, each run
// against tests/golden/quorvel-history/.
#include <gtest/gtest.h>

#include "support/Golden.h"

namespace quorvel::test {
namespace {

// Station folders kept under tests/history/folders/: "station" has a job slot 4 failed,
// one cut short and a line a power loss cut; "fleet" two stations' jobs, one of them
// gathered from the broker as well; "damaged" what a reader must live through.
std::string Folder(const std::string& name) {
    return SourcePath("tests/history/folders/" + name + "/");
}

TEST(QuorvelHistoryTool, FiltersFormsAndExitCodes) {
    const std::string d = Folder("station");
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
        // The Port column is as wide as its widest name, up to 30 characters; a longer
        // name keeps its end, where the COM number stands, so later columns stay in place.
        {"port_column", Folder("ports")},
        // What a power loss, a full disk or a hand edit leaves behind, a day file each:
        // damaged lines are skipped and counted, never fatal.
        {"damaged", "--csv " + Folder("damaged")},
    };
    for (const auto& [name, args] : runs) {
        EXPECT_TRUE(MatchesGolden(
            std::string("quorvel-history/") + name + ".txt",
            RunTranscript("quorvel-history", args,
                          {{d, "$DIR/"}, {Folder("ports"), "$DIR/"}, {Folder("damaged"), "$DIR/"}}, "TZ=UTC-1 ")));
    }
}

// Two stations' folders and a folder gathered from the broker: a Station column, the
// phone's identity, a summary per station, filters by station and phone; a job both in
// a station's folder and among the gathered ones counts once.
TEST(QuorvelHistoryTool, ManyStationsInOneHistory) {
    const std::string d = Folder("fleet");
    std::string runs;
    for (const std::string args : {"a gathered", "--summary a gathered", "--summary --station bench-2 a gathered",
                                   "--phone abcdef --csv a gathered", "--phone 0013 --json a gathered"})
        runs += RunTranscript("quorvel-history", args, {{d, "$DIR/"}}, "cd " + d + " && TZ=UTC-1 ");
    EXPECT_TRUE(MatchesGolden("quorvel-history/stations.txt", runs));
}

}  // namespace
}  // namespace quorvel::test
