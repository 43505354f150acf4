// Sixteen slots send progress messages through the station loop as fast as they
// can; the handler routes each to its slot's display, as the console does.
// Reports messages per second, the share of the slowest slot and the 99th
// percentile of a Send's hand-over (call to return; for posts, the call alone).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "console/MessageRouter.h"
#include "sim/SimEngines.h"
#include "slots/DownloadManager.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "station/StationLoop.h"

namespace {

using namespace quorvel;

class Router final : public app::MessageHandler {
public:
    explicit Router(console::MessageRouter& r) : router_(r) {}
    platform::LResult HandleMessage(const app::Message& message) override {
        platform::LResult result = 0;
        router_.Route(message, result);
        return result;
    }
    void OnTimer(int id) override { router_.RouteTimer(id); }

private:
    console::MessageRouter& router_;
};

void BM_SixteenSlotsProgress(benchmark::State& state) {
    const int perSlot = static_cast<int>(state.range(0));
    // 0: every message sent (the sender waits for the handler), 1: posted.
    const bool posted = state.range(1) == 1;
    platform::SystemClock clock;
    app::StationOptions options;
    options.exeDir = "/tmp/";
    options.systemLanguage = [] { return std::uint16_t{1033}; };
    options.machineStamp = [] { return std::string("00-00-00-00-00-00"); };
    app::Station station(options, clock);
    app::StationLoop loop(clock);
    engine::SimPhoneRegistry registry;
    engine::SimEngineFactory engines(station, registry);
    engine::DownloadManager manager(station, loop, engines);
    for (int i = 0; i < app::kSlotCount; ++i) {
        station.bindings.SetState(i, app::BindState::AllBinded);
        manager.AddWorker(app::HubPortEntry{});
    }
    console::MessageRouter router(station, manager);
    Router handler(router);
    loop.SetHandler(&handler);
    loop.Start();

    std::vector<double> latenciesUs;
    double minShare = 1.0;
    for (auto _ : state) {
        std::vector<std::vector<double>> perThread(app::kSlotCount);
        std::vector<int> counts(app::kSlotCount, 0);
        std::atomic<bool> go{false}, stop{false};
        std::vector<std::thread> senders;
        for (int slot = 0; slot < app::kSlotCount; ++slot) {
            senders.emplace_back([&, slot] {
                auto& lat = perThread[static_cast<std::size_t>(slot)];
                lat.reserve(static_cast<std::size_t>(perSlot));
                while (!go) std::this_thread::yield();
                for (int i = 0; !stop; ++i) {
                    const auto t0 = std::chrono::steady_clock::now();
                    const app::SlotBar percent{slot, app::BarValue::PERCENT, static_cast<std::uint32_t>(i % 101)};
                    if (posted)
                        loop.Post(percent);
                    else
                        loop.Send(percent);
                    const auto t1 = std::chrono::steady_clock::now();
                    lat.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
                    ++counts[static_cast<std::size_t>(slot)];
                    if (i + 1 == perSlot) stop = true;
                }
            });
        }
        const auto start = std::chrono::steady_clock::now();
        go = true;
        // The first slot to finish stops the others, so a starved slot shows in the counts.
        for (auto& t : senders) t.join();
        if (posted) loop.Call([] {});  // until the last posted message is handled
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(seconds);
        int total = 0;
        for (int c : counts) total += c;
        minShare = std::min(minShare, static_cast<double>(*std::min_element(counts.begin(), counts.end())) /
                                          (static_cast<double>(total) / app::kSlotCount));
        for (auto& v : perThread) latenciesUs.insert(latenciesUs.end(), v.begin(), v.end());
        state.counters["msgs_per_s"] = benchmark::Counter(total / seconds);
    }
    loop.Stop();
    std::sort(latenciesUs.begin(), latenciesUs.end());
    auto pct = [&](double p) { return latenciesUs[static_cast<std::size_t>(p * (latenciesUs.size() - 1))]; };
    state.counters["p50_us"] = pct(0.50);
    state.counters["p99_us"] = pct(0.99);
    state.counters["max_us"] = latenciesUs.back();
    state.counters["min_slot_share"] = minShare;
    state.SetItemsProcessed(static_cast<std::int64_t>(latenciesUs.size()));
}

}  // namespace

BENCHMARK(BM_SixteenSlotsProgress)
    ->Args({20000, 0})
    ->Args({20000, 1})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

BENCHMARK_MAIN();
