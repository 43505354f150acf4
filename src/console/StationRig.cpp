#include "console/StationRig.h"

#include <thread>

#include "devices/BenchSurvey.h"
#include "devices/DeviceText.h"
#include "devices/UdevBackend.h"
#include "sim/SimEngineProgram.h"

namespace quorvel::console {

class StationRig::ChosenBackend final : public devices::DeviceBackend {
public:
    ChosenBackend(app::Station& station, engine::SimPhoneRegistry& registry, platform::SysPaths paths)
        : station_(station), registry_(registry), paths_(std::move(paths)) {}
    ~ChosenBackend() override {
        if (check_.joinable()) check_.join();
    }

    devices::DeviceBackend& Get() {
        std::lock_guard g(mutex_);
        if (!chosen_) {
            const app::Settings& s = station_.settings;
            if (s.simulatedBench) {
                const int hubs = std::max(1, static_cast<int>(s.benchHubs));
                const int sockets = std::max(1, static_cast<int>(s.benchSocketsPerHub));
                auto bench = std::make_unique<sim::SimBench>(hubs, sockets, registry_, station_.clock);
                if (s.benchNativeSprd)
                    bench->UseSprdPhonePrograms(std::make_unique<sim::SprdPhonePrograms>(
                        engine::FindBenchProgram(station_.ExeDir(), engine::kSprdPhoneProgram),
                        engine::NativeSprdRunDir(), station_.ExeDir() + "TestLog/sprd-phones"));
                bench_ = bench.get();
                chosen_ = std::move(bench);
            } else {
                auto udev = std::make_unique<devices::UdevBackend>(paths_, s.serviceDrivers);
                devices::UdevBackend* real = udev.get();
                chosen_ = std::move(udev);
                // The bench check runs once, beside the start-up: it reads files and
                // walks /proc, and never holds the station up.
                check_ = std::thread([this, real] { CheckBench(*real); });
            }
        }
        return *chosen_;
    }
    sim::SimBench* Bench() {
        std::lock_guard g(mutex_);
        return bench_;
    }

    std::vector<app::HubPortEntry> EnumerateHubPorts() override { return Get().EnumerateHubPorts(); }
    std::vector<app::DeviceInfo> EnumeratePreloaderDevices() override { return Get().EnumeratePreloaderDevices(); }
    bool ServiceExists(const std::string& s) override { return Get().ServiceExists(s); }
    std::optional<std::vector<std::string>> ServiceDevices(const std::string& s) override {
        return Get().ServiceDevices(s);
    }
    devices::PortTable BuildPortTable(const std::string& s) override { return Get().BuildPortTable(s); }
    std::optional<std::string> FriendlyNameOf(const std::string& id) override { return Get().FriendlyNameOf(id); }
    std::string SerialNodeOf(int n) override { return Get().SerialNodeOf(n); }
    std::optional<devices::PortDevice> DeviceOfPort(int n) override { return Get().DeviceOfPort(n); }
    devices::ChangeSignal& Changes() override { return Get().Changes(); }

private:
    // Findings go to the log; the first one also to the window's notice.
    void CheckBench(devices::UdevBackend& backend) {
        devices::BenchFacts facts = devices::GatherSystemFacts(paths_);
        backend.AddDeviceFacts(facts);
        const auto findings = devices::CheckBench(facts);
        for (const auto& f : findings) station_.settingsStore.UiLog("bench check: " + f.problem + "; fix: " + f.fix);
        if (!findings.empty()) station_.view.SetNotice("bench check: " + findings.front().problem);
    }

    app::Station& station_;
    engine::SimPhoneRegistry& registry_;
    const platform::SysPaths paths_;
    std::thread check_;
    std::mutex mutex_;
    std::unique_ptr<devices::DeviceBackend> chosen_;
    sim::SimBench* bench_ = nullptr;
};

StationRig::StationRig(app::Station& station, app::StationLoop& loop, ConsoleController& console,
                       platform::SysPaths paths)
    : station_(station),
      engines_(station, registry_),
      programs_(
          station, engines_, [this](const engine::SwitchEvent& e) { OnProgramSwitch(e); }, &registry_,
          [this](unsigned long port) { return DeviceOfPort(port); }),
      backend_(std::make_unique<ChosenBackend>(station, registry_, std::move(paths))),
      run_(std::make_unique<StationRun>(station, loop, console, *backend_, programs_)) {
    std::lock_guard g(switchMutex_);
    monitor_ = &run_->Monitor();
}

// The run (its monitor and workers) goes before the backend it watches.
StationRig::~StationRig() {
    EndRun();
}

void StationRig::EndRun() {
    {
        std::lock_guard g(switchMutex_);
        monitor_ = nullptr;
    }
    run_.reset();
}

void StationRig::OnProgramSwitch(const engine::SwitchEvent& e) {
    registry_.NotifySwitch(e);
    TellWatchOfSwitch(e);
}

void StationRig::TellWatchOfSwitch(const engine::SwitchEvent& e) {
    std::lock_guard g(switchMutex_);
    if (e.kind == engine::SwitchEvent::SPRD_TO_DOWNLOAD_PORT && monitor_) monitor_->PhaseOneSwitched(e.comPort);
}

engine::ProgramContext::PortPlace StationRig::DeviceOfPort(unsigned long port) {
    engine::ProgramContext::PortPlace place;
    if (!backend_ || port > static_cast<unsigned long>(devices::kComLast)) return place;
    const int com = static_cast<int>(port);
    // A phone served through its USB node has no serial node; its program takes {device}.
    if (std::string node = backend_->SerialNodeOf(com); !devices::IsUsbNode(node)) place.node = std::move(node);
    if (const auto d = backend_->DeviceOfPort(com)) {
        place.device = d->instanceId;
        place.location = d->location;
    }
    return place;
}

void StationRig::Close(app::StationLoop& loop, bool consoleReady) {
    if (consoleReady && loop.Running()) loop.Call([this] { station_.settingsStore.SaveBindings(); });
    loop.Stop();
    EndRun();
    station_.statistics.Close();
}

sim::SimBench* StationRig::Bench() {
    return backend_->Bench();
}

}  // namespace quorvel::console
