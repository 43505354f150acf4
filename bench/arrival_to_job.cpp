// Sixteen phones arrive at once on the simulated bench of a whole headless station;
// for each, the station's own time from its arrival to the start of its engine, beyond
// the sleeps the binding mandates. The clock runs 1000 times faster, so a mandated
// sleep costs a thousandth of itself; what remains is the station's work (monitor,
// lookups, probe, binding, worker hand-over, thread wake-ups) and the queueing behind
// the phones handled before it. Each phone's mandated sleeps (probe 60 ms, no-slot 10
// ms, after the event 50 ms, for it and every phone handled before it) are subtracted
// in their scaled size. A phone's own time is what the station spent on it: the step
// from the previous phone's engine start to its own (the first: from the arrival),
// less its mandated sleeps. Reports its 50th and 99th percentile, and the latest
// engine start after the arrival of all sixteen (own time of all, queueing included).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "app/Messages.h"
#include "app/Station.h"
#include "console/ConsoleController.h"
#include "console/StationRig.h"
#include "devices/ComProbe.h"
#include "sim/SimBench.h"
#include "support/FixedOptions.h"

namespace {

using namespace quorvel;
using Steady = std::chrono::steady_clock;

constexpr double kSpeed = 1000;
constexpr int kPhones = 16;
constexpr double kMandatedPerPhoneMs = 60 + 10 + 50;

// One station process on a fresh folder, every slot unbound.
struct Station {
    Station() : clock(kSpeed) {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvel-bench-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        dir = pattern + "/";
        std::filesystem::create_directories(dir + "Config");
        std::ofstream(dir + "fw_scatter.txt") << "scatter\n";
        std::string ini = "[COMMON]\nCheckSum=0\nMac=00-11-22-33-44-55\nFilePath=" + dir +
                          "fw_scatter.txt\n[BENCH]\nSimulated=1\nHubs=2\nSocketsPerHub=8\n";
        for (const char* section : {"USBPORTINFO", "BROMPORTINFO", "COM"}) {
            ini += std::string("[") + section + "]\n";
            for (int i = 0; i < app::kSlotCount; ++i) ini += "Index" + std::to_string(i) + "=NA\n";
        }
        std::ofstream(dir + "Config/CommonSetting.ini") << ini;
        station = std::make_unique<app::Station>(test::FixedOptions(dir), clock, ui);
        controller = std::make_unique<console::ConsoleController>(*station, loop);
        loop.SetHandler(controller.get());
        rig = std::make_unique<console::StationRig>(*station, loop, *controller);
        loop.Start();
        loop.Call([&] { controller->OnInitDialog(); });
    }
    ~Station() {
        loop.Stop();
        rig->Run().Manager().JoinWalks();
        rig.reset();
        controller.reset();
        station.reset();
        std::filesystem::remove_all(dir);
    }

    std::string dir;
    platform::ScaledClock clock;
    app::HeadlessConsoleUi ui;
    std::unique_ptr<app::Station> station;
    platform::StationLoop loop{clock};
    std::unique_ptr<console::ConsoleController> controller;
    std::unique_ptr<console::StationRig> rig;
};

// The station's own milliseconds for each of the sixteen phones of one batch.
std::vector<double> OneBatch() {
    Station s;
    s.loop.Send(app::WM_COMMAND, app::CMD_START_STOP, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // every worker is running
    engine::PhoneProfile phone;
    phone.durationMs = 100000;  // 100 ms real: long enough to be seen busy
    sim::SimBench& bench = *s.rig->Bench();
    const auto t0 = Steady::now();
    for (int socket = 0; socket < kPhones; ++socket) bench.Plug(socket, sim::PhoneKind::MTK_PRELOADER, phone);
    std::vector<double> started(kPhones, -1);
    int seen = 0;
    while (seen < kPhones && Steady::now() - t0 < std::chrono::seconds(10)) {
        for (int slot = 0; slot < kPhones; ++slot) {
            if (started[slot] >= 0 || s.station->bindings.State(slot) != app::BIND_BUSY) continue;
            started[slot] = std::chrono::duration<double, std::milli>(Steady::now() - t0).count();
            ++seen;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    std::sort(started.begin(), started.end());
    std::vector<double> own;
    for (int k = 0; k < kPhones; ++k)
        own.push_back(started[k] - (k ? started[k - 1] : 0.0) - kMandatedPerPhoneMs / kSpeed);
    own.push_back(started.back() - kPhones * kMandatedPerPhoneMs / kSpeed);  // the last one's latency
    // Let the jobs end before the station goes.
    while (s.station->statistics.Total() < static_cast<std::uint32_t>(seen) &&
           Steady::now() - t0 < std::chrono::seconds(20))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return own;
}

void BM_SixteenPhonesArrivalToJob(benchmark::State& state) {
    std::vector<double> all, last;
    for (auto _ : state) {
        auto own = OneBatch();
        last.push_back(own.back());
        own.pop_back();
        all.insert(all.end(), own.begin(), own.end());
    }
    std::sort(last.begin(), last.end());
    std::sort(all.begin(), all.end());
    auto at = [&](double q) { return all.empty() ? 0.0 : all[static_cast<std::size_t>(q * (all.size() - 1))]; };
    state.counters["p50_ms_per_phone"] = at(0.50);
    state.counters["p99_ms_per_phone"] = at(0.99);
    state.counters["max_ms_per_phone"] = all.empty() ? 0.0 : all.back();
    state.counters["median_ms_all_sixteen"] = last.empty() ? 0.0 : last[last.size() / 2];
    state.counters["phones"] = static_cast<double>(all.size());
}
BENCHMARK(BM_SixteenPhonesArrivalToJob)->Iterations(10)->Unit(benchmark::kMillisecond);

// The part of each probe that grows with the machine: finding other holders of the
// port through /proc, as fuser does.
void BM_HolderScan(benchmark::State& state) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    char name[128] = {};
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 || ::ptsname_r(master, name, sizeof name) != 0)
        state.SkipWithError("no pseudo-terminal");
    for (auto _ : state) benchmark::DoNotOptimize(devices::HoldersOf("/proc", name));
    if (master >= 0) ::close(master);
}
BENCHMARK(BM_HolderScan)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
