#pragma once
// One download slot: its three engine objects, its events, its thread and its
// row's display state. The thread serves one phone after another, by the kind of
// the device handed over, until the station stops.
// Threads: AcceptDevice, NotifyDevice and SetThreadIndex on the station thread;
// Start and Stop on the manager's start and stop threads; the jobs on the worker's
// own thread; the package-wide operations (worker 0) on the station thread or the
// verification thread while no job runs.

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "app/EngineRecords.h"
#include "engine/EngineInterfaces.h"
#include "engine/SlotDisplay.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::engine {

// NotifyCode values besides the EventKinds 2, 3, 4.
inline constexpr std::uint32_t NOTIFY_NONE = 0;
inline constexpr std::uint32_t NOTIFY_REMOVED = 5;
inline constexpr std::uint32_t kWmClose = 0x0010;
inline constexpr int kIconPort = 1;    // a bound port without a phone
inline constexpr int kIconDevice = 2;  // a phone is there

// The worker's four auto-reset events, waited on in priority order.
class WorkerEvents {
public:
    enum Event { STOP = 0, SPRD = 1, MTK = 2, FP = 3 };
    explicit WorkerEvents(platform::Clock& clock) : clock_(clock) {}
    void Set(Event e);
    void Clear(Event e);
    // Blocks until one is set; returns the first set in priority order and clears it.
    Event Wait();
    // Sleeps `ms` unless Shutdown was called meanwhile; false after Shutdown.
    bool Pause(platform::Millis ms);
    void Shutdown();

private:
    platform::Clock& clock_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::array<bool, 4> set_{};
    bool shutdown_ = false;
};

class DownloadWorker {
public:
    DownloadWorker(app::Station& station, platform::MessageWindow& mainWindow, EngineFactory& engines, int threadIndex);
    ~DownloadWorker();
    DownloadWorker(const DownloadWorker&) = delete;
    DownloadWorker& operator=(const DownloadWorker&) = delete;

    void SetThreadIndex(int index) { threadIndex_.store(index); }
    int ThreadIndex() const { return threadIndex_.load(); }
    void SetHubPort(const app::HubPortEntry& entry) { hubPort_ = entry; }
    const app::HubPortEntry& HubPort() const { return hubPort_; }
    app::DeviceInfo Device() const;
    SlotDisplay& Display() { return display_; }

    void AcceptDevice(const app::DeviceInfo& device);
    void NotifyDevice(std::uint32_t code, const std::string& name);
    std::uint32_t LastNotifyCode() const;

    void Start();
    void Stop();
    bool IsRunning() const;

    // Worker 0 only: the package-wide engine operations.
    void SetChecksumWindow(std::shared_ptr<platform::MessageWindow> window);
    int PreLoadPackage();
    void PackageVersionText(int kind, std::string& text);
    void FillVersionInfo(app::VersionInfo* info);
    void VerifyPackage();

    MtkEngine& Mtk() { return *mtk_; }
    FpEngine& Fp() { return *fp_; }
    SprdEngine& Sprd() { return *sprd_; }

    // "(COM23)" style port number of a friendly name, 1..256, or -1.
    static int ExtractComNumber(const std::string& name);
    // The name with its last parenthesised part moved to the front.
    static std::string DisplayName(const std::string& name);

private:
    void ThreadMain();
    void JobStart(int slot);
    void SprdJob(bool& firstPhase);
    void MtkJob();
    void FpJob();
    void ShowBindState(int slot);

    app::Station& station_;
    platform::MessageWindow& window_;
    std::unique_ptr<SprdEngine> sprd_;
    std::unique_ptr<FpEngine> fp_;
    WorkerEvents events_;
    mutable std::mutex flagLock_;
    bool deviceRunning_ = false;
    bool stopRequested_ = false;
    mutable std::mutex deviceLock_;
    std::uint32_t lastNotifyCode_ = 0;
    app::DeviceInfo device_{};
    app::HubPortEntry hubPort_{};
    std::thread thread_;
    std::atomic<int> threadIndex_;
    SlotDisplay display_;
    std::shared_ptr<platform::MessageWindow> checksumWindow_;
    std::unique_ptr<MtkEngine> mtk_;
};

}  // namespace quorvel::engine
