// Timing run of the settings and counter files when CommonSetting.ini is huge:
//   settings_file [lines]   (default 1000000)
// Prints the time of one load, of a burst of binding saves with counted jobs and
// of single-key reads, as the station does them. Not a unit test: wall-clock figures.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/ProfileIni.h"
#include "station/Station.h"

using namespace quorvel;
using Clock = std::chrono::steady_clock;

namespace {
double Ms(Clock::time_point since) {
    return std::chrono::duration<double, std::milli>(Clock::now() - since).count();
}
}  // namespace

int main(int argc, char** argv) {
    const long lines = argc > 1 ? std::atol(argv[1]) : 1000000;
    const auto dir = std::filesystem::temp_directory_path() / ("quorvel-settings-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir / "Config");
    {
        std::ofstream out(dir / "Config/CommonSetting.ini");
        out << "[COMMON]\r\nMac=00-11-22-33-44-55\r\nCheckSum=0\r\nFilePath=/fw/a.pac\r\n";
        out << "[NOTES]\r\n";
        for (long i = 0; i < lines; ++i) out << "note" << i << "=operator remark number " << i << "\r\n";
    }
    platform::SystemClock clock;
    app::StationOptions options;
    options.exeDir = dir.string() + "/";
    options.machineStamp = [] { return std::string("00-11-22-33-44-55"); };
    app::Station station(std::move(options), clock);

    auto t = Clock::now();
    if (!station.settingsStore.SettingsLoad()) return 1;
    std::printf("lines %ld: load %.0f ms", lines, Ms(t));

    constexpr int kJobs = 20;
    t = Clock::now();
    for (int i = 0; i < kJobs; ++i) {
        station.bindings.SetHsLocation(i % 16, "hub\\PORT" + std::to_string(i));
        station.settingsStore.SaveBindings();
        station.statistics.CountJob(i % 4 == 0);
    }
    std::printf(", %d saves+jobs %.0f ms (%.1f ms each)", kJobs, Ms(t), Ms(t) / kJobs);

    constexpr int kReads = 200;
    const std::string file = (dir / "Config/CommonSetting.ini").string();
    t = Clock::now();
    for (int i = 0; i < kReads; ++i) platform::ProfileIni::ReadString(file, "COMMON", "CheckSum", "", 64);
    std::printf(", %d key reads %.0f ms\n", kReads, Ms(t));
    std::filesystem::remove_all(dir);
    return 0;
}
