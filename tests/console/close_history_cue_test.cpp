// What the operator is asked before a close, what a slot's history shows, and the cues.
#include <gtest/gtest.h>

#include <sstream>

#include "history/JobHistoryReader.h"
#include "history/SlotHistory.h"
#include "present/CloseCheck.h"
#include "present/FinishCue.h"
#include "support/Golden.h"

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

// The jobs of tests/history/folders/slot-history: slot 6's rows of today, newest first,
// and what each job of the folder would say of its failure.
TEST(SlotHistory, TheSlotsJobsOfTodayNewestFirstWithWhyTheyFailed) {
    const std::string folder = test::SourcePath("tests/history/folders/slot-history/TestLog");
    // 11:00 UTC is the 23rd in every zone from -11:00 to +12:00, where "today" is taken.
    std::string shown = "slot 6 today:\n";
    for (const SlotHistoryRow& r : TodaysSlotHistory(folder, 6, app::ParseIsoText("2026-11-23T11:00:00Z")->utc))
        shown += r.ended + " " + r.result + " " + r.time + " " + r.why + (r.failed ? " (failed)\n" : "\n");
    shown += "failure texts:\n";
    for (const app::JobRecord& j : app::ReadJobHistory(folder).jobs)
        shown += j.jobId + " \"" + test::Printable(FailureText(j)) + "\"\n";
    EXPECT_TRUE(test::MatchesGolden("job-history/slot_history.txt", shown));
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
