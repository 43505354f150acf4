// Headless stations (quorvel-bench) reporting to a mosquitto of the test's own: a broker
// restarted mid-shift, a station killed at a random moment, a broker that stops
// answering; in the end every job of the history has reached the collector.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "history/JobHistoryReader.h"
#include "platform/JsonText.h"
#include "platform/MachineStamp.h"
#include "support/Mosquitto.h"
#include "support/RunTool.h"
#include "support/StationFixture.h"

namespace quorvel::test {
namespace {

void Pause(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// The TransactionIDs of the messages mosquitto_sub printed, one payload a line.
std::multiset<std::string> Collected(const std::string& text) {
    std::multiset<std::string> ids;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const std::size_t at = line.find("\"TransactionID\":\"");
        if (at != std::string::npos) ids.insert(line.substr(at + 17, line.find('"', at + 17) - at - 17));
    }
    return ids;
}

TEST(ReportE2e, EveryJobReachesTheCollectorThroughRestartsKillsAndAStalledBroker) {
    if (const std::string missing = Mosquitto::Missing(); !missing.empty()) {
        if (std::getenv("CI")) FAIL() << missing;
        GTEST_SKIP() << missing;
    }
    Mosquitto broker;
    ASSERT_TRUE(broker.Start()) << broker.dir.Read("broker.log");
    TempDir dir;
    // A persistent session, so what the broker took while the collector was away still reaches it.
    Background collector(broker.Client("mosquitto_sub", {"-c", "-i", "collector", "-q", "1", "-t", "quorvel/e2e/jobs"}),
                         dir.File("jobs.txt"));
    for (int i = 0; i < 100 && dir.Read("jobs.txt").find("probe") == std::string::npos; ++i) {
        RunCommand("mosquitto_pub -p " + std::to_string(broker.Port()) + " -q 1 -t quorvel/e2e/jobs -m probe");
        Pause(50);
    }
    ASSERT_NE(dir.Read("jobs.txt").find("probe"), std::string::npos) << "the collector never subscribed";

    dir.Write("station/Config/CommonSetting.ini",
              UnboundSettings("CheckSum=0\nLANGUAGE=1033\n[BENCH]\nSimulated=1\nHubs=2\nSocketsPerHub=8\n[REPORT]\n"
                              "Broker=" +
                                  broker.Url() + "\nStation=e2e\n",
                              platform::FirstAdapterMac()));
    const std::string bench = "0 set package scatter\n0 press\n0 auto brom\n";
    dir.Write("shift.txt", bench + "40000 end\n");
    dir.Write("short.txt", bench + "20000 end\n");
    const auto station = [&](const char* scenario) {
        return Background({ToolPath("quorvel-bench"), dir.File("station"), dir.File(scenario), "--speed", "10"},
                          dir.File("bench.log"));
    };
    const auto retained = [&](const std::string& topic, int count = 1) {
        return RunCommand("mosquitto_sub -p " + std::to_string(broker.Port()) + " -t '" + topic +
                          "' --retained-only -W 2 -C " + std::to_string(count))
            .out;
    };
    const auto awaitRunning = [&] {
        for (int i = 0; i < 100; ++i) {
            if (retained("quorvel/e2e/state").find("\"NewState\":\"Running\"") != std::string::npos) return true;
            Pause(20);
        }
        return false;
    };

    {  // The broker goes away mid-shift and comes back. It goes before the first job ends:
        // what it had acknowledged and not yet passed on, its restart may lose.
        Background run = station("shift.txt");
        ASSERT_TRUE(awaitRunning()) << dir.Read("bench.log");
        broker.Kill(SIGTERM);
        Pause(300);
        ASSERT_TRUE(broker.Start());
        EXPECT_NE(run.Wait(60), -1) << dir.Read("bench.log");
    }
    {  // The station dies at a random moment: its last will says Offline.
        Background run = station("shift.txt");
        ASSERT_TRUE(awaitRunning()) << dir.Read("bench.log");
        std::mt19937 random{std::random_device{}()};
        Pause(std::uniform_int_distribution<int>(0, 800)(random));
        run.Signal(SIGKILL);
        run.Wait(10);
        EXPECT_NE(retained("quorvel/e2e/state").find("\"NewState\":\"Offline\""), std::string::npos);
    }
    const std::string station0 = dir.File("station/TestLog/");
    {  // A broker that takes the connection and then answers nothing: the jobs stay in the outbox.
        const std::size_t before = app::ReadJobHistory(station0).jobs.size();
        Background run = station("short.txt");
        ASSERT_TRUE(awaitRunning()) << dir.Read("bench.log");
        broker.Signal(SIGSTOP);
        EXPECT_NE(run.Wait(60), -1) << dir.Read("bench.log");
        const auto mark = platform::ReadFlatJsonObject(dir.Read("station/TestLog/report-acked.json"),
                                                       platform::LoneSurrogate::REPLACE);
        ASSERT_TRUE(mark);
        const auto history = app::ReadJobHistory(station0).jobs;
        ASSERT_GT(history.size(), before);
        EXPECT_NE(mark->at("id").text, history.back().jobId) << "the last job was never acknowledged";
        broker.Signal(SIGCONT);
    }
    {  // The next start sends what is left; the collector then has every job, none missing.
        Background run = station("short.txt");
        EXPECT_NE(run.Wait(60), -1) << dir.Read("bench.log");
    }
    std::set<std::string> wanted;
    for (const auto& job : app::ReadJobHistory(station0).jobs) wanted.insert(job.jobId);
    std::multiset<std::string> got;
    for (int i = 0; i < 200; ++i) {
        got = Collected(dir.Read("jobs.txt"));
        if (std::set<std::string>(got.begin(), got.end()) == wanted) break;
        Pause(50);
    }
    const std::set<std::string> unique(got.begin(), got.end());
    std::string missing;
    for (const auto& id : wanted)
        if (!unique.count(id)) missing += " " + id;
    EXPECT_EQ(missing, "") << "jobs in the history: " << wanted.size() << ", collected: " << unique.size();
    EXPECT_GT(wanted.size(), 16u);
    std::printf("jobs %zu, messages %zu (%zu sent again)\n", wanted.size(), got.size(), got.size() - unique.size());
    // Every slot's state is there for a page that comes later.
    const std::string slots = retained("quorvel/e2e/slots/+", 16);
    for (int slot = 0; slot < 16; ++slot)
        EXPECT_NE(slots.find("\"Lane\":" + std::to_string(slot) + ","), std::string::npos) << slot;
}

}  // namespace
}  // namespace quorvel::test
