// Sixteen slots run engine-program jobs (quorvel-sim-engine) that write 200 progress
// lines a second each; the adapters turn them into slot messages that the station loop
// routes to the slots' displays. Reports the station process's CPU use (the programs
// themselves excluded) as a share of one core, split into the station loop's part (routing
// and displays, the same for any engine) and the rest (the engine-program adapters),
// and the time from a progress line's writing to its slot row's update (50th, 99th
// percentile, worst).
// Usage: engine_program [SECONDS] [LINES_PER_SECOND]

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "console/MessageRouter.h"
#include "engines/program/ProgramMtkEngine.h"
#include "sim/SimEngineProgram.h"
#include "slots/DownloadManager.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "station/StationLoop.h"
#include "support/FixedOptions.h"

namespace {

using namespace quorvel;

std::uint32_t NowUs32() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const double us = static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
    return static_cast<std::uint32_t>(static_cast<unsigned long long>(us) & 0xFFFFFFFFull);
}

double CpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Routes as the console does, and times each "done" message when its row has been updated.
class Handler final : public app::MessageHandler {
public:
    explicit Handler(console::MessageRouter& r) : router_(r), startUs_(NowUs32()) {}
    platform::LResult HandleMessage(const app::Message& message) override {
        platform::LResult result = 0;
        router_.Route(message, result);
        if (const auto* bar = std::get_if<app::SlotBar>(&message); bar && bar->what == app::BarValue::DONE) {
            const std::uint32_t now = NowUs32();
            // A job's own start and end counts are no time stamps: a stamp was taken during
            // the run (the clock wraps every 71 minutes, hence the differences).
            if (bar->value - startUs_ > now - startUs_) return result;
            const std::uint32_t latency = now - bar->value;
            std::lock_guard g(mutex_);
            latencies_.push_back(latency);
        }
        return result;
    }
    void OnTimer(int id) override { router_.RouteTimer(id); }
    std::vector<std::uint32_t> Latencies() {
        std::lock_guard g(mutex_);
        return latencies_;
    }

private:
    console::MessageRouter& router_;
    const std::uint32_t startUs_;
    std::mutex mutex_;
    std::vector<std::uint32_t> latencies_;
};

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    const int rate = argc > 2 ? std::max(1, std::atoi(argv[2])) : 200;
    const int kSlots = std::getenv("SLOTS") ? std::atoi(std::getenv("SLOTS")) : 16;

    char tmpl[] = "/tmp/quorvel-bench-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    const std::string dir = std::string(tmpl) + "/";
    platform::SystemClock clock;
    app::Station station(test::FixedOptions(dir), clock);
    station.language.SetLanguageId(app::kLangEnglish + 1);
    station.stationRunning = true;
    app::StationLoop loop(clock);
    engine::SimPhoneRegistry registry;
    engine::SimEngineFactory sims(station, registry);
    engine::DownloadManager manager(station, loop, sims);
    for (int i = 0; i < kSlots; ++i) {
        app::HubPortEntry entry{};
        entry.hubId = "hub" + std::to_string(i / 4);
        entry.port = static_cast<std::uint32_t>(i % 4 + 1);
        manager.AddWorker(entry);
    }
    console::MessageRouter router(station, manager);
    Handler handler(router);
    loop.SetHandler(&handler);
    loop.Start();

    engine::ProgramSettings settings;
    settings.mtk = "\"" + engine::FindSimEngineProgram(dir) + "\" --stamp --no-switch --speed 0 --duration " +
                   std::to_string(seconds * 1000) + " --progress-rate " + std::to_string(rate);
    engine::ProgramContext context(station, settings);

    const double cpu0 = CpuSeconds();
    const auto wall0 = std::chrono::steady_clock::now();
    std::vector<std::thread> slots;
    std::vector<int> results(kSlots, -1);
    for (int i = 0; i < kSlots; ++i) {
        slots.emplace_back([&, i] {
            engine::ProgramMtkEngine engine(context, loop, sims.MakeMtk(loop));
            engine.SetDLPara(i, 0, 0, 0, 0, 0, 0, 0, "", "", "", 0, 0, 0);
            app::DeviceInfo device{};
            device.friendlyName = "Phone (COM" + std::to_string(i + 1) + ")";
            engine.SetDeviceInfo(&device);
            results[static_cast<std::size_t>(i)] = engine.DLOperationStart();
        });
    }
    for (auto& t : slots) t.join();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    const double cpu = CpuSeconds() - cpu0;
    double loopCpu = 0;
    loop.Call([&] {
        timespec ts{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        loopCpu = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
    });
    loop.Stop();

    auto lat = handler.Latencies();
    std::sort(lat.begin(), lat.end());
    auto pct = [&](double p) {
        return lat.empty() ? 0.0 : lat[std::min(lat.size() - 1, static_cast<std::size_t>(p * lat.size()))] / 1000.0;
    };
    const int passed = static_cast<int>(std::count(results.begin(), results.end(), 0));
    std::printf("slots %d, %d progress lines/s each, %.1f s: %zu progress updates, %d/%d jobs passed\n", kSlots, rate,
                wall, lat.size(), passed, kSlots);
    std::printf(
        "station CPU %.2f s = %.2f %% of one core; station loop and slot displays %.2f %%, "
        "engine-program adapters (readers, job threads, sending) %.2f %%\n",
        cpu, 100.0 * cpu / wall, 100.0 * loopCpu / wall, 100.0 * (cpu - loopCpu) / wall);
    std::printf("line to slot row: p50 %.2f ms, p99 %.2f ms, max %.2f ms\n", pct(0.5), pct(0.99),
                lat.empty() ? 0.0 : lat.back() / 1000.0);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return passed == kSlots ? 0 : 1;
}
