// The [REPORT] section's checks, and the outbox over the history files: its order, its
// mark and what a restart sends again.
#include <gtest/gtest.h>

#include "history/JobHistory.h"
#include "platform/JsonText.h"
#include "report/ReportOutbox.h"
#include "report/ReportPayloads.h"
#include "report/ReportSettings.h"
#include "support/Golden.h"
#include "support/TempDir.h"

namespace quorvel::report {
namespace {

// "BROKER | STATION | USER | PASSWORD FILE | CA FILE" (files in a folder that holds "pw"
// and "ca.pem"; missing fields empty) as the settings read from it, or the refusal.
TEST(ReportSettings, ReadsGoodSectionsAndRefusesBadOnesWithOneMessage) {
    test::TempDir dir;
    dir.Write("pw", "s3cret\nsecond line\n");
    dir.Write("ca.pem", "-----BEGIN CERTIFICATE-----\n");
    EXPECT_TRUE(test::MatchesCaseGolden("report-settings/sections.txt", [&](const std::string& line) {
        std::vector<std::string> f;
        for (std::size_t at = 0; f.size() < 5;) {
            const auto bar = line.find(" | ", at);
            f.push_back(at > line.size() ? "" : line.substr(at, bar - at));
            at = bar == std::string::npos ? line.size() + 1 : bar + 3;
        }
        for (std::string* file : {&f[3], &f[4]})
            if (!file->empty()) *file = dir.File(*file);
        const ReportSettingsRead r = CheckReportSection({f[0], f[1], f[2], f[3], f[4]}, "host-1");
        if (!r.settings) return test::Scrub(r.error.empty() ? "off" : "refused: " + r.error, {{dir.Path(), "$DIR/"}});
        const ReportSettings& s = *r.settings;
        return (s.tls ? "tls " : "plain ") + s.host + " port " + std::to_string(s.port) + " as " + s.station +
               (s.user.empty() ? "" : ", user " + s.user + " password " + s.password) +
               (s.caFile.empty() ? "" : ", CA " + test::Scrub(s.caFile, {{dir.Path(), "$DIR/"}}));
    }));
}

app::JobRecord Job(const std::string& id, const char* end) {
    app::JobRecord r;
    r.jobId = id;
    r.slot = 3;
    r.start = *app::ParseIsoText(end);
    r.end = r.start;
    r.result = app::JobResult::Fail;
    r.errorText = "bad \xff byte";
    return r;
}

std::vector<std::string> Ids(const std::vector<OutboxJob>& jobs) {
    std::vector<std::string> ids;
    for (const auto& j : jobs) ids.push_back(j.record.jobId);
    return ids;
}

TEST(ReportOutbox, SendsInHistoryOrderAndMovesTheMarkOnlyOverAcknowledgedRuns) {
    test::TempDir dir;
    // Day one: a cut line followed by a record on the same line, a line that is no record.
    dir.Write("20261123.jsonl", app::JobLine(Job("a", "2026-11-23T10:00:00Z")) + "{\"id\":\"cut\",\"slo" +
                                    app::JobLine(Job("b", "2026-11-23T11:00:00Z")) + "garbage\n");
    dir.Write("20261124.jsonl", app::JobLine(Job("c", "2026-11-24T09:00:00Z")));
    dir.Write("notes.jsonl", app::JobLine(Job("x", "2026-11-24T09:00:00Z")));
    const std::string testLog = dir.Path();

    ReportOutbox first(testLog, 20261123);
    auto jobs = first.Next(2);
    EXPECT_EQ(Ids(jobs), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(jobs[1].line.rfind("{\"id\":\"b\"", 0), 0u) << "the record after the cut, as the file holds it";
    auto more = first.Next(10);
    EXPECT_EQ(Ids(more), (std::vector<std::string>{"c"}));
    EXPECT_TRUE(first.Next(10).empty());

    // b's acknowledgement alone moves nothing: a is still out.
    first.Acknowledge(jobs[1].ticket);
    EXPECT_EQ(first.Mark(), (ReportOutbox::Position{20261123, 0}));
    first.Acknowledge(jobs[0].ticket);
    EXPECT_EQ(first.Mark().day, 20261123);
    EXPECT_EQ(first.InFlight(), 1u);
    ASSERT_TRUE(first.Save());

    // A restart (or a new connection) sends again what was not acknowledged, and what
    // was written since.
    dir.Write("20261124.jsonl", app::JobLine(Job("c", "2026-11-24T09:00:00Z")) +
                                    app::JobLine(Job("d", "2026-11-24T10:00:00Z")) + "{\"id\":\"half");
    ReportOutbox second(testLog, 20261125);
    jobs = second.Next(10);
    EXPECT_EQ(Ids(jobs), (std::vector<std::string>{"c", "d"})) << "a half-written line waits";
    second.Rewind();
    jobs = second.Next(10);
    EXPECT_EQ(Ids(jobs), (std::vector<std::string>{"c", "d"}));
    for (const auto& j : jobs) second.Acknowledge(j.ticket);
    ASSERT_TRUE(second.Save());
    EXPECT_TRUE(ReportOutbox(testLog, 20261125).Next(10).empty());
    const auto mark = platform::ReadFlatJsonObject(dir.Read("report-acked.json"), platform::LoneSurrogate::REPLACE);
    ASSERT_TRUE(mark);
    EXPECT_EQ(mark->at("id").text, "d");

    // A first start begins at today's file, and a damaged mark counts as none.
    test::TempDir fresh;
    fresh.Write("20261123.jsonl", app::JobLine(Job("old", "2026-11-23T10:00:00Z")));
    fresh.Write("20261124.jsonl", app::JobLine(Job("new", "2026-11-24T10:00:00Z")));
    fresh.Write("report-acked.json", "{\"day\":\"x\"");
    EXPECT_EQ(Ids(ReportOutbox(fresh.Path(), 20261124).Next(10)), (std::vector<std::string>{"new"}));
}

// Every message the station publishes, whole: a job's carries its history line
// unchanged, and one sent twice is sent identically.
TEST(ReportPayloads, CarryTheHeadAndTheHistoryLineUnchanged) {
    const app::JobRecord job = Job("20261124T100000-s03-5f3a9c01d2e4-1", "2026-11-24T10:00:00+01:00");
    const std::string line = app::JobLine(job).substr(0, app::JobLine(job).size() - 1);
    EXPECT_EQ(WorkCompleted("bench-3", job, line), WorkCompleted("bench-3", job, line));
    SlotReport slot;
    slot.phone.imei = "356938035643809";
    CountersReport counters;
    counters.total = 5;
    std::string all = WorkCompleted("bench-3", job, line) + "\n" + FaultOccurred("bench-3", job) + "\n" +
                      SlotStateMessage("s", job.end, slot) + "\n" + UnitsTested("s", job.end, counters) + "\n";
    counters.phonesPerHour = 42.25;
    all += UnitsTested("s", job.end, counters) + "\n" + Heartbeat("s", job.end) + "\n" +
           StationStateChanged("s", job.end, StationState::Running, 16, "1.2") + "\n" +
           PackageInUse("s", job.end, {"MTK", "/fw/scatter.txt", "V1"}) + "\n";
    EXPECT_TRUE(test::MatchesGolden("report-payloads/messages.txt", all));
}

}  // namespace
}  // namespace quorvel::report
