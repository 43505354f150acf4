#include "console/StationRig.h"

#include "devices/UdevBackend.h"

namespace quorvel::console {

class StationRig::ChosenBackend final : public devices::DeviceBackend {
public:
    ChosenBackend(app::Station& station, engine::SimPhoneRegistry& registry) : station_(station), registry_(registry) {}

    devices::DeviceBackend& Get() {
        std::lock_guard g(mutex_);
        if (!chosen_) {
            const app::Settings& s = station_.settings;
            if (s.simulatedBench) {
                const int hubs = std::max(1, static_cast<int>(s.benchHubs));
                const int sockets = std::max(1, static_cast<int>(s.benchSocketsPerHub));
                auto bench = std::make_unique<sim::SimBench>(hubs, sockets, registry_, station_.clock);
                bench_ = bench.get();
                chosen_ = std::move(bench);
            } else {
                chosen_ = std::make_unique<devices::UdevBackend>(platform::SysPaths{}, s.serviceDrivers);
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
    devices::ChangeSignal& Changes() override { return Get().Changes(); }

private:
    app::Station& station_;
    engine::SimPhoneRegistry& registry_;
    std::mutex mutex_;
    std::unique_ptr<devices::DeviceBackend> chosen_;
    sim::SimBench* bench_ = nullptr;
};

StationRig::StationRig(app::Station& station, platform::StationLoop& loop, ConsoleController& console)
    : station_(station),
      engines_(station, registry_),
      backend_(std::make_unique<ChosenBackend>(station, registry_)),
      run_(std::make_unique<StationRun>(station, loop, console, *backend_, engines_)) {}

// The run (its monitor and workers) goes before the backend it watches.
StationRig::~StationRig() {
    run_.reset();
}

void StationRig::Close(platform::StationLoop& loop, bool consoleReady) {
    if (consoleReady && loop.Running()) loop.Call([this] { station_.settingsStore.SaveBindings(); });
    loop.Stop();
    run_.reset();
}

sim::SimBench* StationRig::Bench() {
    return backend_->Bench();
}

}  // namespace quorvel::console
