#pragma once
// A station with a running station loop, simulated engines, a download manager and
// the slot-message routing, in virtual time. Slots are bound and rows exist.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "console/MessageRouter.h"
#include "sim/SimEngines.h"
#include "slots/DownloadManager.h"
#include "station/Messages.h"
#include "station/StationLoop.h"
#include "support/StationFixture.h"

namespace quorvel::test {

// Engines a test puts in place of the simulated ones.
struct EngineSwap {
    std::function<std::unique_ptr<engine::MtkEngine>()> mtk = nullptr;
    std::function<std::unique_ptr<engine::SprdEngine>()> sprd = nullptr;
};

// Binds the first `slots` slots, each to its COM port and sockets, four to a hub, and
// gives each a worker.
inline void AddBoundWorkers(app::Station& st, engine::DownloadManager& manager, int slots) {
    for (int i = 0; i < slots; ++i) {
        st.bindings.SetHsLocation(i, "hub1\\PORT" + std::to_string(i + 1));
        st.bindings.SetLsLocation(i, "hub2\\PORT" + std::to_string(i + 1));
        st.bindings.SetComName(i, "Phone (COM" + std::to_string(i + 1) + ")");
        st.bindings.SetState(i, app::BindState::AllBinded);
        app::HubPortEntry entry{};
        entry.hubId = "hub" + std::to_string(i / 4);
        entry.port = static_cast<std::uint32_t>(i % 4 + 1);
        manager.AddWorker(entry);
    }
}

// Keeps what a package verification tells its window: "path percent" for each file's
// progress, the message number for anything else.
class ChecksumWindow final : public app::MessageWindow {
public:
    platform::LResult Send(app::Message message) override {
        std::lock_guard g(mutex_);
        if (const auto* r = std::get_if<app::ChecksumProgress>(&message))
            seen_.push_back(r->path + " " + std::to_string(r->percent));
        else if (const auto* verdict = std::get_if<app::ChecksumResult>(&message))
            seen_.push_back(verdict->passed ? "passed" : "failed");
        else
            seen_.push_back(std::to_string(app::NumberOf(message)));
        return 0;
    }
    void Post(app::Message message) override { Send(std::move(message)); }
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}
    std::vector<std::string> Seen() const {
        std::lock_guard g(mutex_);
        return seen_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> seen_;
};

class EngineHarness : public app::MessageHandler, private engine::EngineFactory {
public:
    explicit EngineHarness(int slots, EngineSwap swap = {}) : swap_(std::move(swap)) {
        fx.WriteSettings("[COMMON]\n");
        // Packages the simulated engines accept: MTK and CFG jobs flash them.
        fx.dir.Write("pkg/scatter.txt", "preloader preloader.bin\n");
        fx.dir.Write("pkg/phone.cfg", "preloader preloader.bin\n");
        st.package.scatterFilePath = fx.dir.File("pkg/scatter.txt");
        st.package.cfgFilePath = fx.dir.File("pkg/phone.cfg");
        st.language.SetLanguageId(app::kLangEnglish + 1);  // English (the fixture's system is 1033)
        manager = std::make_unique<engine::DownloadManager>(st, loop, static_cast<engine::EngineFactory&>(*this));
        router = std::make_unique<console::MessageRouter>(st, *manager);
        AddBoundWorkers(st, *manager, slots);
        loop.SetHandler(this);
        loop.Start();
    }

    ~EngineHarness() override {
        loop.Stop();  // releases any sender before the workers go
        std::atomic<bool> joined{false};
        std::thread join([&] {
            manager->JoinWalks();
            std::vector<std::thread> later;
            {
                std::lock_guard g(mutex_);
                later.swap(later_);
            }
            for (auto& t : later) t.join();
            joined = true;
        });
        while (!joined) {
            fx.clock.Advance(100);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        join.join();
        manager.reset();
    }

    platform::LResult HandleMessage(const app::Message& message) override {
        platform::LResult r = 0;
        router->Route(message, r);
        return r;
    }
    void OnTimer(int id) override { router->RouteTimer(id); }

    // Starts the station: Ready, StartAll, and the start walk run through.
    void StartStation() {
        st.stationRunning = true;
        manager->SetState(engine::ManagerState::Ready);
        loop.Call([&] { manager->StartAll(); });
        RunUntil([&] { return RunningWorkers() == manager->WorkerCount(); });
    }

    // Lets the other threads reach their waits, then moves virtual time to the next
    // deadline, until `done` holds. False after 20 s of real time.
    bool RunUntil(const std::function<bool()>& done) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < limit) {
            if (done()) return true;
            Settle();
            if (done()) return true;
            if (!fx.clock.AdvanceToNextDeadline()) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return done();
    }

    // The waiter count must hold for about 2 ms: on a loaded machine a thread between two
    // waits can be off the processor for longer than a few hundred microseconds.
    void Settle() {
        int last = -1, stable = 0;
        while (stable < 8) {
            std::this_thread::sleep_for(std::chrono::microseconds(250));
            const int now = fx.clock.Waiters();
            stable = now == last ? stable + 1 : 0;
            last = now;
        }
    }

    app::DeviceInfo Device(app::EventKind type, const std::string& name, const std::string& instanceId) const {
        app::DeviceInfo d{};
        d.type = type;
        d.friendlyName = name;
        d.instanceId = instanceId;
        return d;
    }

    // Hands a device to slot `slot` on the station thread, as binding does.
    bool HandOver(int slot, const app::DeviceInfo& d, engine::HandOver how = engine::HandOver::PLAIN) {
        bool taken = false;
        loop.Call([&] {
            manager->WorkerAt(slot)->SetThreadIndex(slot);
            taken = manager->WorkerAt(slot)->AcceptDevice(d, how);
        });
        return taken;
    }

    // Plays the simulated bench: an SPRD phone that switched to its download port
    // arrives again on the slot of that port once re-enumeration took `ms`.
    void ReplugSprdOnSwitch(platform::Millis ms) {
        registry.SetSwitchHook([this, ms](const engine::SwitchEvent& e) {
            if (e.kind != engine::SwitchEvent::SPRD_TO_DOWNLOAD_PORT) return;
            const int slot = static_cast<int>(e.comPort) - 1;
            const auto d = Device(app::EventKind::SPRD, "SPRD DL (COM" + std::to_string(e.comPort) + ")", "dl");
            std::lock_guard g(mutex_);
            later_.emplace_back([this, ms, slot, d] {
                fx.clock.Sleep(ms);
                loop.PostTask([this, slot, d] {
                    manager->WorkerAt(slot)->SetThreadIndex(slot);
                    manager->WorkerAt(slot)->AcceptDevice(d);
                });
            });
        });
    }

    int RunningWorkers() const {
        int n = 0;
        for (int i = 0; i < manager->WorkerCount(); ++i) n += manager->WorkerAt(i)->IsRunning() ? 1 : 0;
        return n;
    }
    std::uint32_t Total() const { return st.statistics.Total(); }
    std::uint32_t Fail() const { return st.statistics.Fail(); }
    std::string Result(int slot) const { return st.slotList.ResultText(slot); }
    std::string Bar(int slot) const { return st.slotList.Row(slot).progress.text; }
    app::BindState State(int slot) const { return st.bindings.State(slot); }
    // "result | bar | binding state" of a slot, to check what an operator sees at once.
    std::string Slot(int slot) const {
        return Result(slot) + " | " + Bar(slot) + " | " + app::BindStateName(State(slot));
    }

    StationFixture fx;
    app::Station& st = *fx.station;
    app::StationLoop loop{fx.clock};
    engine::SimPhoneRegistry registry;
    engine::SimEngineFactory sim{st, registry};
    std::unique_ptr<engine::DownloadManager> manager;
    std::unique_ptr<console::MessageRouter> router;

private:
    std::unique_ptr<engine::MtkEngine> MakeMtk(app::MessageWindow& w) override {
        return swap_.mtk ? swap_.mtk() : sim.MakeMtk(w);
    }
    std::unique_ptr<engine::FpEngine> MakeFp(app::MessageWindow& w) override { return sim.MakeFp(w); }
    std::unique_ptr<engine::SprdEngine> MakeSprd(app::MessageWindow& w) override {
        return swap_.sprd ? swap_.sprd() : sim.MakeSprd(w);
    }

    EngineSwap swap_;
    mutable std::mutex mutex_;
    std::vector<std::thread> later_;
};

// An MTK engine that records the calls it is given. Its jobs and the pre-load return
// `result`, a job 1 when cancelled after its set-up; `beforeJob` runs once on the
// worker thread as a job's device is set, one step before the job begins.
class RecordingMtk final : public engine::MtkEngine {
public:
    static RecordingMtk& Of(EngineHarness& h, int slot) {
        return static_cast<RecordingMtk&>(h.manager->WorkerAt(slot)->Mtk());
    }
    static EngineSwap Swap() {
        return {.mtk = [] { return std::make_unique<RecordingMtk>(); }};
    }
    std::string Calls() {
        std::lock_guard g(mutex_);
        return calls_;
    }

    void SetDLPara(int a1, int a2, int a3, int a4, int a5, int a6, int a7, int a8, const char* a9, const char* a10,
                   const char* a11, int a12, int a13, int a14) override {
        Log("SetDLPara", a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14);
    }
    void SetMemoryTestPara(int a, int b, int c, int d, int e) override { Log("SetMemoryTestPara", a, b, c, d, e); }
    void SetEfusePara(int, const char* xml, int, const char*, const char*, const char*) override {
        Log("SetEfusePara", xml);
    }
    void SetDAPort(int i) override { Log("SetDAPort", i); }
    void SetDownloadType(int t) override { Log("SetDownloadType", t); }
    void SetDeviceInfo(app::DeviceInfo* d) override {
        Log("SetDeviceInfo", d->friendlyName);
        cancelled = false;  // as the engines do: a cancel belongs to one job
        if (beforeJob) std::exchange(beforeJob, nullptr)();
    }
    int DLOperationStart() override {
        Log("DLOperationStart");
        ++jobs;
        return cancelled.exchange(false) ? 1 : result.load();
    }
    void CancelTask() override { cancelled = true; }
    int GetPCLoadVersion(char* b) override {
        std::snprintf(b, 260, "%s", version.c_str());
        return 0;
    }
    void GetVersionInfo(app::VersionInfo*) override {}
    int PreLoadFiles(char*, bool, int, int, app::SpmtkEfuseInfo, bool) override { return result; }
    int VerifyHostBufferBeforeStart(const char*) override { return 1; }
    void SetChkSumWnd(app::MessageWindow*) override {}

    std::atomic<int> result{0};
    std::string version = "CY_1.0";
    std::function<void()> beforeJob;
    std::atomic<int> jobs{0};

private:
    template <class... A>
    void Log(const char* name, const A&... args) {
        std::ostringstream s;
        s << name << '(';
        [[maybe_unused]] const char* sep = "";
        ((s << sep << args, sep = ","), ...);
        std::lock_guard g(mutex_);
        calls_ += s.str() + ") ";
    }
    std::atomic<bool> cancelled{false};
    std::mutex mutex_;
    std::string calls_;
};

}  // namespace quorvel::test
