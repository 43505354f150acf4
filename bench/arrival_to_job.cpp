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
#include <thread>
#include <vector>

#include "devices/ComProbe.h"
#include "sim/SimBench.h"
#include "station/Station.h"
#include "support/StationFixture.h"
#include "support/StationProcess.h"
#include "support/TempDir.h"

namespace {

using namespace quorvel;
using Steady = std::chrono::steady_clock;

constexpr double kSpeed = 1000;
constexpr int kPhones = 16;
constexpr double kMandatedPerPhoneMs = 60 + 10 + 50;

// One station process on a fresh folder, every slot unbound.
struct Station {
    Station() {
        dir.Write("fw_scatter.txt", "scatter\n");
        dir.Write("Config/CommonSetting.ini",
                  test::UnboundSettings("CheckSum=0\nFilePath=" + dir.File("fw_scatter.txt") +
                                        "\n[BENCH]\nSimulated=1\nHubs=2\nSocketsPerHub=8\n"));
        proc = std::make_unique<test::StationProcess>(dir, platform::SysPaths{}, kSpeed);
        if (!proc->Init()) std::abort();
    }
    ~Station() {
        proc.reset();  // before its folder goes
    }

    test::TempDir dir;
    std::unique_ptr<test::StationProcess> proc;
};

// The station's own milliseconds for each of the sixteen phones of one batch.
std::vector<double> OneBatch() {
    Station s;
    s.proc->PressStartStop();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // every worker is running
    engine::PhoneProfile phone;
    phone.durationMs = 100000;  // 100 ms real: long enough to be seen busy
    sim::SimBench& bench = s.proc->Bench();
    const auto t0 = Steady::now();
    for (int socket = 0; socket < kPhones; ++socket) bench.Plug(socket, sim::PhoneKind::MTK_PRELOADER, phone);
    std::vector<double> started(kPhones, -1);
    int seen = 0;
    while (seen < kPhones && Steady::now() - t0 < std::chrono::seconds(10)) {
        for (int slot = 0; slot < kPhones; ++slot) {
            if (started[slot] >= 0 || s.proc->station->bindings.State(slot) != app::BindState::Busy) continue;
            started[slot] = std::chrono::duration<double, std::milli>(Steady::now() - t0).count();
            ++seen;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    std::sort(started.begin(), started.end());
    std::vector<double> own;
    own.reserve(kPhones + 1);
    for (int k = 0; k < kPhones; ++k)
        own.push_back(started[k] - (k ? started[k - 1] : 0.0) - kMandatedPerPhoneMs / kSpeed);
    own.push_back(started.back() - kPhones * kMandatedPerPhoneMs / kSpeed);  // the last one's latency
    // Let the jobs end before the station goes.
    while (s.proc->station->statistics.Total() < static_cast<std::uint32_t>(seen) &&
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
