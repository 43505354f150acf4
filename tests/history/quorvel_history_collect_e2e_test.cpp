// quorvel-history --collect against a real broker on loopback: each job once, whatever
// comes twice or was gathered before; nothing of other programs; and what was published
// while the collector was briefly away.
#include <gtest/gtest.h>
#include <mosquitto.h>
#include <signal.h>

#include <cstdlib>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "history/FleetHistory.h"
#include "history/JobHistory.h"
#include "support/Mosquitto.h"
#include "support/RunTool.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

std::string Payload(const std::string& station, const std::string& id) {
    app::JobRecord r;
    r.jobId = id;
    r.machine = "00:11:22:33:44:55";
    r.start = *app::ParseIsoText("2026-11-24T10:00:00+01:00");
    r.end = *app::ParseIsoText("2026-11-24T10:02:00+01:00");
    r.result = app::JobResult::Pass;
    r.device.imei = "356938035643809";
    std::string job = app::JobLine(r);
    job.pop_back();
    return R"({"v":1,"MessageName":"CFX.Production.WorkCompleted","Station":")" + station +
           R"(","TimeStamp":"2026-11-24T10:02:00+01:00","TransactionID":")" + id +
           R"(","Result":"Completed","Lane":0,"PrimaryIdentifier":"356938035643809","Job":)" + job + "}";
}

// Waits (at most 10 s) until the file holds `text`.
bool AwaitFileText(const std::string& path, const std::string& text) {
    for (int i = 0; i < 500; ++i) {
        std::ifstream in(path);
        std::stringstream s;
        s << in.rdbuf();
        if (s.str().find(text) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// Publishes each (topic, payload) with QoS 1 and returns once the broker has them all.
bool Publish(int port, const std::vector<std::pair<std::string, std::string>>& messages) {
    struct Acks {
        std::mutex m;
        std::condition_variable cv;
        std::size_t n = 0;
    } acks;
    mosquitto* mosq = mosquitto_new(nullptr, true, &acks);
    mosquitto_publish_callback_set(mosq, [](mosquitto*, void* self, int) {
        auto& a = *static_cast<Acks*>(self);
        std::lock_guard g(a.m);
        ++a.n;
        a.cv.notify_all();
    });
    bool ok = mosquitto_connect(mosq, "127.0.0.1", port, 30) == MOSQ_ERR_SUCCESS &&
              mosquitto_loop_start(mosq) == MOSQ_ERR_SUCCESS;
    for (const auto& [topic, payload] : messages)
        ok = ok && mosquitto_publish(mosq, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1,
                                     false) == MOSQ_ERR_SUCCESS;
    {
        std::unique_lock lk(acks.m);
        ok = ok && acks.cv.wait_for(lk, std::chrono::seconds(10), [&] { return acks.n == messages.size(); });
    }
    mosquitto_disconnect(mosq);
    mosquitto_loop_stop(mosq, false);
    mosquitto_destroy(mosq);
    return ok;
}

TEST(QuorvelHistoryCollect, EachJobOnceAcrossDuplicatesForeignMessagesAndAbsence) {
    if (const std::string missing = Mosquitto::Missing(); !missing.empty()) {
        if (std::getenv("CI")) FAIL() << missing;
        GTEST_SKIP() << missing;
    }
    mosquitto_lib_init();
    Mosquitto broker;
    ASSERT_TRUE(broker.Start());
    TempDir dir;
    const std::string folder = dir.File("gathered");
    // Gathered by an earlier run: never written again.
    dir.Write("gathered/bench-1/20261124.jsonl", Payload("bench-1", "old") + "\n");
    const std::vector<std::string> argv{ToolPath("quorvel-history"), "--collect", broker.Url(), folder};
    const std::string log = dir.File("collect.log");

    Background collector(argv, log);
    ASSERT_TRUE(AwaitFileText(log, "connected; collecting")) << dir.Read("collect.log");
    ASSERT_TRUE(Publish(broker.Port(), {
                                           {"quorvel/bench-1/jobs", Payload("bench-1", "old")},
                                           {"quorvel/bench-1/jobs", Payload("bench-1", "new")},
                                           {"quorvel/bench-1/jobs", Payload("bench-1", "new")},
                                           // Not ours: another station's name, a path, another version, no JSON.
                                           {"quorvel/bench-3/jobs", Payload("bench-1", "forged")},
                                           {"quorvel/../jobs", Payload("..", "dots")},
                                           {"quorvel/bench-1/jobs", "{\"v\":2}"},
                                           {"quorvel/bench-1/jobs", "hello"},
                                           {"quorvel/bench-2/jobs", Payload("bench-2", "b2")},
                                       }));
    // In order from one publisher: the last one written means all were taken.
    ASSERT_TRUE(AwaitFileText(folder + "/bench-2/20261124.jsonl", "b2"));
    collector.Signal(SIGTERM);
    EXPECT_EQ(collector.Wait(10), 0);
    EXPECT_TRUE(AwaitFileText(log, "2 jobs written, 2 already there, 4 other messages ignored"))
        << dir.Read("collect.log");
    // The collector is away; the broker keeps its session's messages for it.
    ASSERT_TRUE(Publish(broker.Port(), {{"quorvel/bench-1/jobs", Payload("bench-1", "while-away")}}));
    collector = Background(argv, log);
    ASSERT_TRUE(AwaitFileText(folder + "/bench-1/20261124.jsonl", "while-away")) << dir.Read("collect.log");
    collector.Signal(SIGINT);
    EXPECT_EQ(collector.Wait(10), 0);

    const app::FleetRead read = app::ReadFleetHistory({folder});
    EXPECT_EQ(read.duplicates, 0);
    EXPECT_EQ(read.skippedLines, 0);
    std::vector<std::string> ids;
    for (const app::StationJob& j : read.jobs) ids.push_back(j.station + "/" + j.job.jobId);
    EXPECT_EQ(ids, (std::vector<std::string>{"bench-1/old", "bench-1/new", "bench-1/while-away", "bench-2/b2"}));
    mosquitto_lib_cleanup();
}

}  // namespace
}  // namespace quorvel::test
