// What the operator is asked before a close, what a slot's history shows, and the cues.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "history/JobHistory.h"
#include "history/SlotHistory.h"
#include "present/CloseCheck.h"
#include "present/FinishCue.h"
#include "support/Golden.h"
#include "support/TempDir.h"

namespace quorvel::console {
namespace {

using app::JobResult;

// "SYSTEM-LANGUAGE ending|open BUSY-SLOTS..." -> the question asked before a close.
TEST(CloseCheck, AsksNamingBusySlotsUnlessTheSessionEnds) {
    EXPECT_TRUE(test::MatchesCaseGolden("close-check/questions.txt", [](const std::string& line) {
        std::istringstream in(line);
        std::uint16_t system = 0;
        std::string session;
        std::vector<int> busy;
        in >> system >> session;
        for (int slot; in >> slot;) busy.push_back(slot);
        app::Language language([&] { return system; });
        language.SetLanguageId(2052);
        const std::string q = CloseQuestion(busy, language, session == "ending");
        return q.empty() ? std::string("not asked") : test::Printable(q);
    }));
}

app::JobRecord Job(int slot, const char* end, JobResult result, const char* step = "", const char* error = "") {
    app::JobRecord r;
    r.jobId = std::string(end) + step;
    r.slot = slot;
    r.port = "COM1";
    r.end = *app::ParseIsoText(end);
    r.start = r.end;
    r.start.utc -= 125;
    r.durationSeconds = 125;
    r.result = result;
    r.failedStep = step;
    r.errorText = error;
    return r;
}

TEST(SlotHistory, TheSlotsJobsOfTodayNewestFirstWithWhyTheyFailed) {
    test::TempDir dir;
    const app::JobHistory history(dir.File("TestLog"));
    for (const app::JobRecord& j : {
             Job(6, "2026-11-22T23:59:00+01:00", JobResult::Fail, "yesterday"),
             Job(6, "2026-11-23T10:43:00+01:00", JobResult::Fail, "DA download", "Download\nfailed!"),
             Job(6, "2026-11-23T09:00:00+01:00", JobResult::Pass),  // appended late, ended early
             Job(7, "2026-11-23T11:00:00+01:00", JobResult::Fail, "other slot"),
             Job(6, "2026-11-23T10:43:00+01:00", JobResult::Interrupted, "same second, appended later"),
         })
        ASSERT_TRUE(history.Append(j));

    // 11:00 UTC is the 23rd in every zone from -11:00 to +12:00, where "today" is taken.
    const auto rows = TodaysSlotHistory(dir.File("TestLog"), 6, app::ParseIsoText("2026-11-23T11:00:00Z")->utc);
    std::vector<std::string> shown;
    for (const SlotHistoryRow& r : rows) shown.push_back(r.ended + " " + r.result + " " + r.time + " " + r.why);
    EXPECT_EQ(shown,
              (std::vector<std::string>{"10:43:00 interrupted 2:05 same second, appended later",
                                        "10:43:00 FAIL 2:05 DA download: Download failed!", "09:00:00 PASS 2:05 "}));
    EXPECT_TRUE(rows[1].failed);
    EXPECT_FALSE(rows[0].failed);

    EXPECT_EQ(FailureText(Job(1, "2026-11-23T10:00:00Z", JobResult::Fail, "Format", "Timeout")), "Format\nTimeout");
    EXPECT_EQ(FailureText(Job(1, "2026-11-23T10:00:00Z", JobResult::Interrupted, "Format", "Stopped")), "");
}

TEST(FinishCue, PassAndFailSoundDifferentlyAndAStopIsSilent) {
    EXPECT_EQ(app::CueFor(JobResult::Pass), app::Cue::Pass);
    EXPECT_EQ(app::CueFor(JobResult::Fail), app::Cue::Fail);
    EXPECT_FALSE(app::CueFor(JobResult::Interrupted));
    const auto pass = app::CueSamples(app::Cue::Pass, 8000);
    const auto fail = app::CueSamples(app::Cue::Fail, 8000);
    EXPECT_NE(pass, fail);
    for (const auto* cue : {&pass, &fail}) {
        ASSERT_GT(cue->size(), 8000u / 4);
        EXPECT_LT(cue->size(), 8000u);  // short: a cue, not a tune
        EXPECT_EQ(cue->front(), 0);     // faded in and out, so it does not click
        EXPECT_EQ(cue->back(), 0);
    }
}

}  // namespace
}  // namespace quorvel::console
