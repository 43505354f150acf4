// Sixteen SPRD phones flashed at the protocol level on the simulated bench, driven by the
// station as on a real bench: the scenario sprd_native16.txt played by quorvel-bench, each
// phone a quorvel-sprd-phone, each job quorvel-sprd-flash. Every passing phone holds the
// package's images byte for byte and keeps its calibration (the phones' own reports); each
// injected fault fails its job with the phone's answer in words. Prints the station's own
// CPU share and memory while sixteen engines run.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "packages/DemoSprdPackage.h"
#include "platform/MachineStamp.h"
#include "support/RunTool.h"
#include "support/StationFixture.h"
#include "support/TempDir.h"

namespace quorvel::test {
namespace {

long Field(const std::string& json, const std::string& key) {
    const auto at = json.find("\"" + key + "\":");
    return at == std::string::npos ? -1 : std::atol(json.c_str() + at + key.size() + 3);
}

// The text of `key` inside the report's object that starts with "name":"<name>".
std::string PartitionField(const std::string& report, const std::string& name, const std::string& key) {
    const auto at = report.find("{\"name\":\"" + name + "\"");
    if (at == std::string::npos) return "";
    const auto end = report.find('}', at);
    const auto k = report.find("\"" + key + "\":", at);
    if (k == std::string::npos || k > end) return "";
    std::string v = report.substr(k + key.size() + 3, end - k - key.size() - 3);
    v = v.substr(0, v.find(','));
    if (!v.empty() && v.front() == '"') v = v.substr(1, v.find('"', 1) - 1);
    return v;
}

std::string Sha256(const std::string& path) {
    const auto r = RunCommand("sha256sum '" + path + "'");
    return r.out.substr(0, 64);
}

TEST(SprdNativeBench, SixteenPhonesPassWithThePackagesImagesOrFailWithThePhonesAnswer) {
    for (const char* tool : {"quorvel-sprd-flash", "quorvel-sprd-phone"})
        ASSERT_TRUE(std::filesystem::exists(ToolPath(tool))) << tool << " is not built";
    TempDir dir;
    const packages::PacSpec pac = packages::DemoSprdPac(4096);
    dir.Write("station/fw/readme.txt", "\n");
    const std::string package = dir.File("station/fw/demo.pac");
    packages::WritePac(package, pac);
    std::map<std::string, std::string> images;  // partition -> the package's image
    for (const auto& [entry, partition] : {std::pair{4, "boot"}, {5, "system"}}) {
        const std::string file = std::string("images/") + partition;
        dir.Write(file, pac.entries[static_cast<std::size_t>(entry)].data);
        images[partition] = Sha256(dir.File(file));
    }
    dir.Write("station/Config/CommonSetting.ini",
              UnboundSettings("CheckSum=0\nLANGUAGE=1033\nFilePath=" + package +
                                  "\n[BENCH]\nSimulated=1\nHubs=2\nSocketsPerHub=8\nNativeSprd=1\n",
                              platform::FirstAdapterMac()));
    const auto run = RunCommand(ToolPath("quorvel-bench") + " " + dir.File("station") + " " + QUORVEL_SOURCE_DIR +
                                "/tools/quorvel-bench/scenarios/sprd_native16.txt --speed 1 --json");
    const std::string& out = run.out;
    ASSERT_EQ(run.exitCode, 0) << out.substr(0, 3000);
    std::printf("sixteen native SPRD jobs: station CPU %ld ms in %ld ms (%.1f %% of one core), at most %ld KiB\n",
                Field(out, "cpuMs"), Field(out, "realMs"), 100.0 * Field(out, "cpuMs") / Field(out, "realMs"),
                Field(out, "maxRssKiB"));
    EXPECT_EQ(Field(out, "total"), 16) << out.substr(0, 3000);
    EXPECT_EQ(Field(out, "fail"), 3);
    EXPECT_EQ(Field(out, "results"), 16);
    EXPECT_EQ(out.find("\"state\":\"BUSY\""), std::string::npos);

    // Sockets 3, 8 and 13 carry the faults; ports are numbered in plug order from 1.
    const std::map<int, std::string> faulty{{4, "signature"}, {9, "overrun"}, {14, "early-end"}};
    int reports = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir.File("station/TestLog/sprd-phones"))) {
        const std::string name = e.path().filename().string();
        const int com = std::atoi(name.c_str() + 3);
        const std::string report = dir.Read("station/TestLog/sprd-phones/" + name);
        SCOPED_TRACE(name + ": " + report.substr(0, 600));
        ++reports;
        if (faulty.count(com)) {
            EXPECT_NE(report.find(faulty.at(com)), std::string::npos) << "its fault struck";
            continue;
        }
        for (const auto& [partition, sha] : images) {
            EXPECT_EQ(PartitionField(report, partition, "sha256"), sha) << partition;
            EXPECT_EQ(PartitionField(report, partition, "writes"), "1") << partition;
        }
        EXPECT_NE(report.find("\"calibration\":\"kept\""), std::string::npos);
    }
    EXPECT_EQ(reports, 16);

    // Each failure says the step and the phone's answer.
    const std::string history = RunCommand(ToolPath("quorvel-history") + " --json " + dir.File("station")).out;
    for (const char* answer : {"(0xA6)", "(0x8A)", "(0x88)"})
        EXPECT_NE(history.find(answer), std::string::npos) << answer << " in " << history.substr(0, 3000);
}

}  // namespace
}  // namespace quorvel::test
