// A soak through quorvel-bench, for each platform: batches of sixteen phones, some
// failing, some pulled mid-job. Every job the engines finished is counted once, none
// more, no phone is served twice, no slot ends BUSY and the program ends.
// QUORVEL_SOAK_PHONES sets the phones per platform (CI: 48, 16 under a sanitizer);
// QUORVEL_SOAK_PLATFORMS=sprd (or brom, cfg, a list) narrows it.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>

#include "platform/MachineStamp.h"
#include "support/PacWriter.h"
#include "support/RunTool.h"
#include "support/StationFixture.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kDefaultPhones = 16;  // the sanitizers slow the station tenfold
constexpr const char* kSpeed = "4";
#else
constexpr int kDefaultPhones = 48;
constexpr const char* kSpeed = "20";
#endif

struct Platform {
    const char* phone;    // the scenario's kind of phone
    const char* package;  // under fw/
    int failingSteps;     // steps a failing job may stop at
};

std::string Scenario(const Platform& platform, int phones, unsigned seed) {
    std::mt19937 random(seed);
    constexpr int kPeriod = 30000;
    std::string text = "0 start\n";
    const int batches = (phones + 15) / 16;
    int n = 0;
    for (int b = 0; b < batches; ++b) {
        const int t0 = 1000 + b * kPeriod;
        std::vector<std::pair<int, std::string>> steps;
        for (int s = 0; s < 16 && n < phones; ++s, ++n) {
            const int at = t0 + 150 * s;
            const int duration = 1000 + static_cast<int>(random() % 3000);
            std::string plug = "plug " + std::to_string(s) + " " + platform.phone +
                               " duration=" + std::to_string(duration) + " size=" + std::to_string(2 + random() % 10) +
                               " speed=32 phase1=" + std::to_string(300 + random() % 700);
            if (random() % 10 == 0) plug += " fail step=" + std::to_string(random() % platform.failingSteps);
            steps.emplace_back(at, plug);
            if (random() % 20 == 0) steps.emplace_back(at + duration / 2, "unplug " + std::to_string(s));
        }
        for (int s = 0; s < 16; ++s) steps.emplace_back(t0 + kPeriod - 4000, "unplug " + std::to_string(s));
        steps.emplace_back(t0 + kPeriod - 1500, "start");
        std::stable_sort(steps.begin(), steps.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        for (const auto& [at, step] : steps) text += std::to_string(at) + " " + step + "\n";
    }
    return text + std::to_string(1000 + batches * kPeriod + 5000) + " end\n";
}

long Field(const std::string& json, const std::string& key) {
    const auto at = json.find("\"" + key + "\":");
    return at == std::string::npos ? -1 : std::atol(json.c_str() + at + key.size() + 3);
}

TEST(BenchSoak, EveryFinishedJobIsCountedOnceAndNoSlotStaysBusy) {
    const char* env = std::getenv("QUORVEL_SOAK_PHONES");
    const int phones = env && *env ? std::atoi(env) : kDefaultPhones;
    const Platform platforms[] = {
        {"brom", "MT6765_Android_scatter.txt", 4}, {"sprd", "phone.pac", 8}, {"cfg", "phone.cfg", 3}};
    const char* only = std::getenv("QUORVEL_SOAK_PLATFORMS");
    for (const Platform& platform : platforms) {
        if (only && *only && std::string(only).find(platform.phone) == std::string::npos) continue;
        SCOPED_TRACE(platform.phone);
        TempDir dir;
        const std::string package = dir.File(std::string("station/fw/") + platform.package);
        if (std::string(platform.phone) == "sprd") {
            dir.Write("station/fw/readme.txt", "\n");  // makes the folder
            WritePac(package, TypicalSprdPac());
        } else {
            dir.Write(std::string("station/fw/") + platform.package, "package\n");
        }
        // This machine's stamp, or the station would not load the package and bindings.
        dir.Write("station/Config/CommonSetting.ini",
                  UnboundSettings("CheckSum=0\nLANGUAGE=1033\nFilePath=" + package +
                                      "\n[BENCH]\nSimulated=1\nHubs=2\nSocketsPerHub=8\n",
                                  platform::FirstAdapterMac()));
        dir.Write("soak.txt", Scenario(platform, phones, 7));
        const auto run = RunCommand(ToolPath("quorvel-bench") + " " + dir.File("station") + " " + dir.File("soak.txt") +
                                    " --speed " + kSpeed + " --json");
        const std::string& out = run.out;
        ASSERT_EQ(run.exitCode, 0) << out.substr(0, 2000);
        const long total = Field(out, "total"), results = Field(out, "results");
        std::printf("soak %s: %ld phones plugged, %ld served, %ld jobs counted, %ld failed, %ld ms simulated\n",
                    platform.phone, Field(out, "plugged"), Field(out, "served"), total, Field(out, "fail"),
                    Field(out, "virtualMs"));
        EXPECT_GT(results, phones / 2) << out.substr(0, 3000);
        EXPECT_EQ(total, results) << "failed " << Field(out, "fail") << ", most for one phone "
                                  << Field(out, "mostForOnePhone");
        EXPECT_LE(Field(out, "mostForOnePhone"), 1);
        EXPECT_EQ(out.find("\"state\":\"BUSY\""), std::string::npos) << out;
    }
}

}  // namespace
}  // namespace quorvel::test
