// quorvel-history --collect against a real broker on loopback: each job once, whatever
// comes twice or was gathered before; nothing of other programs; and what was published
// while the collector was briefly away. The messages and the earlier gathering are kept
// in tests/history/folders/broker/.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "history/FleetHistory.h"
#include "support/Golden.h"
#include "support/Mosquitto.h"
#include "support/RunTool.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

// Waits (at most 10 s) until the file of `dir` holds `text`.
bool AwaitFileText(const TempDir& dir, const std::string& name, const std::string& text) {
    for (int i = 0; i < 500; ++i) {
        if (dir.Read(name).find(text) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// Publishes the messages of a kept file in order; each has reached the broker on return.
bool Publish(const Mosquitto& broker, const std::string& messages) {
    return RunCommand("grep -v '^#' " + SourcePath("tests/history/folders/broker/" + messages) +
                      " | while read -r topic payload; do mosquitto_pub -p " + std::to_string(broker.Port()) +
                      " -q 1 -t \"$topic\" -m \"$payload\" || exit 1; done")
               .exitCode == 0;
}

TEST(QuorvelHistoryCollect, EachJobOnceAcrossDuplicatesForeignMessagesAndAbsence) {
    if (const std::string missing = Mosquitto::Missing(); !missing.empty()) {
        if (std::getenv("CI")) FAIL() << missing;
        GTEST_SKIP() << missing;
    }
    Mosquitto broker;
    ASSERT_TRUE(broker.Start());
    TempDir dir;
    const std::string folder = dir.File("gathered");
    // Gathered by an earlier run: never written again.
    std::filesystem::copy(SourcePath("tests/history/folders/broker/gathered"), folder,
                          std::filesystem::copy_options::recursive);
    const std::vector<std::string> argv{ToolPath("quorvel-history"), "--collect", broker.Url(), folder};
    const std::string log = dir.File("collect.log");

    Background collector(argv, log);
    ASSERT_TRUE(AwaitFileText(dir, "collect.log", "connected; collecting")) << dir.Read("collect.log");
    ASSERT_TRUE(Publish(broker, "messages.txt"));
    // In order from one publisher: the last one written means all were taken.
    ASSERT_TRUE(AwaitFileText(dir, "gathered/bench-2/20261124.jsonl", "b2"));
    collector.Signal(SIGTERM);
    EXPECT_EQ(collector.Wait(10), 0);
    EXPECT_TRUE(AwaitFileText(dir, "collect.log", "2 jobs written, 2 already there, 4 other messages ignored"))
        << dir.Read("collect.log");
    // The collector is away; the broker keeps its session's messages for it.
    ASSERT_TRUE(Publish(broker, "while-away.txt"));
    collector = Background(argv, log);
    ASSERT_TRUE(AwaitFileText(dir, "gathered/bench-1/20261124.jsonl", "while-away")) << dir.Read("collect.log");
    collector.Signal(SIGINT);
    EXPECT_EQ(collector.Wait(10), 0);

    const app::FleetRead read = app::ReadFleetHistory({folder});
    EXPECT_EQ(read.duplicates, 0);
    EXPECT_EQ(read.skippedLines, 0);
    std::vector<std::string> ids;
    for (const app::StationJob& j : read.jobs) ids.push_back(j.station + "/" + j.job.jobId);
    EXPECT_EQ(ids, (std::vector<std::string>{"bench-1/old", "bench-1/new", "bench-1/while-away", "bench-2/b2"}));
}

}  // namespace
}  // namespace quorvel::test
