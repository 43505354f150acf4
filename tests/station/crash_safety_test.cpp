#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "history/JobHistoryReader.h"
#include "platform/ChildProcess.h"
#include "platform/ExeDir.h"
#include "platform/ProfileIni.h"
#include "station/Station.h"
#include "support/FixedOptions.h"
#include "support/TempDir.h"

namespace quorvel::app {
namespace {

using platform::ProfileIni;

// Adds what the writer printed within `ms` (its totals as saved, one a line) to `seen`;
// false when nothing came.
bool Read(platform::ChildProcess& writer, std::string& seen, int ms) {
    pollfd p{writer.OutFd(), POLLIN, 0};
    char buf[4096];
    const long n = ::poll(&p, 1, ms) > 0 ? writer.ReadOut(buf, sizeof buf) : 0;
    if (n > 0) seen.append(buf, static_cast<std::size_t>(n));
    return n > 0;
}

std::uint32_t LastTotal(const std::string& seen, std::uint32_t otherwise) {
    const auto end = seen.rfind('\n');
    if (end == std::string::npos) return otherwise;
    const auto begin = seen.rfind('\n', end - 1);
    return static_cast<std::uint32_t>(std::stoul(seen.substr(begin == std::string::npos ? 0 : begin + 1)));
}

// A station killed at random moments, while it starts, counts jobs and saves its
// bindings, always leaves both files whole; the total neither goes back nor jumps; the
// history holds the counted jobs and at most the one in flight, which the next start
// counts; temporaries of killed writers do not survive the next start.
TEST(CrashSafetyTest, KilledStationLeavesCompleteFilesAndNoTemporaries) {
    const std::string writer = platform::ExeDir() + "burst_writer";
    ASSERT_EQ(::access(writer.c_str(), X_OK), 0) << writer;
    test::TempDir dir;
    const std::string notes = "; operator notes\r\n[COMMON]\r\nMac=00-11-22-33-44-55\r\nCheckSum=0\r\n";
    dir.Write("Config/CommonSetting.ini", notes);
    std::mt19937 random(12345);
    std::uint32_t total = 0;
    int temporariesSeen = 0;
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        std::string error, seen;
        const auto child = platform::ChildProcess::Spawn({writer, dir.Path()}, false, error);
        ASSERT_TRUE(child) << error;
        if (round % 4 == 0) {
            // Anywhere in start-up or the first jobs.
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        } else {
            // Once it counts, its start-up is over: no temporary of a killed writer is left.
            // (A sanitizer build starts slowly.)
            for (int waited = 0; waited < 100 && seen.empty(); ++waited) Read(*child, seen, 100);
            ASSERT_FALSE(seen.empty()) << "the writer never counted";
            for (const auto& e : std::filesystem::directory_iterator(dir.File("Config"))) {
                const std::string name = e.path().filename();
                if (name.find(".tmp") == std::string::npos) continue;
                ++temporariesSeen;
                EXPECT_NE(name.find(".tmp" + std::to_string(child->Pid()) + "."), std::string::npos) << name;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 10000));
        }
        child->Signal(SIGKILL);
        const auto exit = child->Reap();
        ASSERT_TRUE(exit.signalled) << "writer ended by itself with " << exit.code;
        while (Read(*child, seen, 0)) {
        }

        const std::string settings = dir.Read("Config/CommonSetting.ini");
        ASSERT_EQ(settings.rfind(notes, 0), 0u);
        EXPECT_EQ(ProfileIni::Lookup(settings, "COMMON", "Mac").second, "00-11-22-33-44-55");
        for (int n = 0; n < 16; ++n) {
            const std::string key = "Index" + std::to_string(n);
            if (ProfileIni::Lookup(settings, "COM", key).first) {
                ASSERT_TRUE(ProfileIni::Lookup(settings, "THREADSTATUS", key).first) << key;
                EXPECT_EQ(ProfileIni::Lookup(settings, "COM", key).second,
                          "Diag  [COMMON] Mac=0 (COM" + std::to_string(n + 1) + ")");
            }
        }
        // Killed before its first save, a writer may have written nothing at all.
        const std::string counters =
            std::filesystem::exists(dir.File("Config/TestResult.ini")) ? dir.Read("Config/TestResult.ini") : "";
        const auto saved = ProfileIni::ReadIntFrom(counters, "total", "NUM", total);
        const auto fail = ProfileIni::ReadIntFrom(counters, "fail", "NUM", 0);
        // The last reported total is on disk; the next one may be too.
        const std::uint32_t reported = LastTotal(seen, total);
        EXPECT_GE(saved, reported) << counters;
        EXPECT_LE(saved, reported + 1) << counters;
        EXPECT_LE(fail, saved);
        total = saved;
        const auto lines = static_cast<std::uint32_t>(ReadJobHistory(dir.File("TestLog")).jobs.size());
        EXPECT_GE(lines, saved);
        EXPECT_LE(lines, saved + 1);
    }
    // The next start counts the job in flight, so the two agree again.
    platform::ManualClock clock;
    Station st(test::FixedOptions(dir.Path()), clock);
    ASSERT_EQ(st.settingsStore.SettingsLoad(), 1);
    EXPECT_EQ(st.statistics.Total(), ReadJobHistory(dir.File("TestLog")).jobs.size());
    // Three rounds in four wait for a count, so each of them adds at least one job; more
    // depends on the machine's speed, which a test must not.
    EXPECT_GE(total, 150u);
    RecordProperty("temporaries_seen", temporariesSeen);
}

}  // namespace
}  // namespace quorvel::app
