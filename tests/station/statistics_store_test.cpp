#include <gtest/gtest.h>
#include <sys/stat.h>

#include "history/JobHistoryReader.h"
#include "platform/ProfileIni.h"
#include "station/Station.h"
#include "station/Texts.h"
#include "support/Golden.h"
#include "support/SmallDisk.h"
#include "support/StationFixture.h"

namespace quorvel::app {
namespace {

using test::StationFixture;

// Total, failures and pass rate as the window shows them.
std::vector<std::string> Shown(const Station& st) {
    return {st.view.Text(IDC_TOTAL), st.view.Text(IDC_FAILURES), st.view.Text(IDC_PASS_RATE)};
}

// Loading the counters: the counts_ rows of tests/tables/settings-load.txt. Counting on
// from a file's 3 jobs, 1 failed: each step (pass, fail, reset) -> what the window shows
// and the file holds after it.
TEST(StatisticsTest, CountingSavesAndResetShowsZerosAtOnce) {
    StationFixture f;
    f.dir.Write("Config/TestResult.ini", "[total]\nNUM=3\n[fail]\nNUM=1\n");
    StatisticsStore& stats = f.station->statistics;
    stats.StatisticsLoad();
    EXPECT_TRUE(test::MatchesCaseGolden("settings-load/counting.txt", [&](const std::string& step) {
        step == "reset" ? stats.StatisticsReset() : stats.CountJob(step == "fail");
        const auto shown = Shown(*f.station);
        return shown[0] + "/" + shown[1] + " " + shown[2] + ", " + test::Printable(f.dir.Read("Config/TestResult.ini"));
    }));
}

JobRecord Job(Station& st, int slot, JobResult result) {
    JobRecord job;
    job.slot = slot;
    job.start = job.end = LocalTimeStamp(st.clock.WallSeconds());
    job.jobId = MakeJobId(job.start, slot);
    job.result = result;
    return job;
}

// A kill between a job's history line and its counters: the next start counts that job
// and says which.
TEST(StatisticsTest, JobInTheHistoryButNotCountedIsCountedAtTheNextStart) {
    StationFixture f;
    f.dir.Write("Config/TestResult.ini", "[total]\nNUM=7\n[fail]\nNUM=2\n[last]\nJOB=a\n");
    JobRecord counted = Job(*f.station, 3, JobResult::Pass), inFlight = Job(*f.station, 4, JobResult::Fail);
    counted.jobId = "a";
    inFlight.jobId = "b";
    inFlight.countedTotal = 8;
    inFlight.countedFail = 3;
    ASSERT_TRUE(f.station->history.WriteLine(counted));
    ASSERT_TRUE(f.station->history.WriteLine(inFlight));
    f.station->statistics.StatisticsLoad();
    EXPECT_EQ(Shown(*f.station), (std::vector<std::string>{"8", "3", "62.50%"}));
    EXPECT_NE(f.station->view.Notice().find("Job b (slot 5, FAIL)"), std::string::npos) << f.station->view.Notice();
    EXPECT_EQ(platform::ProfileIni::ReadString(f.station->statistics.FilePath(), "last", "JOB", "", 64), "b");

    // Agreeing files say nothing, also after a job that was not counted (cut short by a close).
    StationFixture again;
    again.dir.Write("Config/TestResult.ini", "[total]\nNUM=7\n[fail]\nNUM=2\n[last]\nJOB=a\n");
    ASSERT_TRUE(again.station->history.WriteLine(counted));
    JobRecord uncounted = inFlight;
    uncounted.countedTotal = 7;
    uncounted.countedFail = 2;
    ASSERT_TRUE(again.station->history.WriteLine(uncounted));
    again.station->statistics.StatisticsLoad();
    EXPECT_EQ(again.station->statistics.Total(), 7u);
    EXPECT_EQ(again.station->view.Notice(), "");
}

// A full disk: counting goes on in memory, the notice says so at once, every write is
// retried, and the files catch up in order once there is room. What still cannot be
// written at close is reported; what could, survives a restart.
TEST(StatisticsTest, FullDiskHoldsCountsAndHistoryBackUntilThereIsRoom) {
    test::SmallDisk disk;
    if (!disk.Ready()) GTEST_SKIP() << disk.Reason();
    platform::ManualClock clock;
    auto st = std::make_unique<Station>(test::FixedOptions(disk.Path()), clock);
    ASSERT_EQ(::mkdir((disk.Path() + "Config").c_str(), 0755), 0);
    StatisticsStore& stats = st->statistics;
    stats.StatisticsLoad();

    disk.Fill();
    std::vector<std::string> ids;
    for (JobResult r : {JobResult::Pass, JobResult::Fail, JobResult::Interrupted}) {
        JobRecord job = Job(*st, static_cast<int>(ids.size()), r);
        ids.push_back(job.jobId);
        stats.RecordJob(job, true);
    }
    EXPECT_NE(st->view.Notice().find("not being saved"), std::string::npos) << st->view.Notice();
    EXPECT_EQ(Shown(*st), (std::vector<std::string>{"3", "2", "33.33%"}));
    EXPECT_EQ(stats.Pending(), 3u);
    stats.Retry();
    EXPECT_EQ(stats.Pending(), 3u);
    EXPECT_EQ(platform::ProfileIni::ReadInt(stats.FilePath(), "total", "NUM", 99), 0u);

    disk.Free();
    stats.Retry();
    EXPECT_EQ(stats.Pending(), 0u);
    EXPECT_EQ(st->view.Notice(), texts::kSavingResumed);
    std::vector<std::string> written;
    for (const JobRecord& j : ReadJobHistory(st->history.Dir()).jobs) written.push_back(j.jobId);
    EXPECT_EQ(written, ids);
    EXPECT_EQ(platform::ProfileIni::ReadInt(stats.FilePath(), "total", "NUM", 0), 3u);
    EXPECT_EQ(platform::ProfileIni::ReadString(stats.FilePath(), "last", "JOB", "", 64), ids.back());

    // Full at close: reported. Room again before the end: nothing counted is lost.
    disk.Fill();
    stats.RecordJob(Job(*st, 5, JobResult::Pass), true);
    EXPECT_FALSE(stats.Close());
    disk.Free();
    stats.RecordJob(Job(*st, 6, JobResult::Pass), false);  // cut short by the close: not counted
    EXPECT_TRUE(stats.Close());
    st = std::make_unique<Station>(test::FixedOptions(disk.Path()), clock);
    st->statistics.StatisticsLoad();
    EXPECT_EQ(st->statistics.Total(), 4u);
    EXPECT_EQ(ReadJobHistory(st->history.Dir()).jobs.size(), 5u);
}

}  // namespace
}  // namespace quorvel::app
