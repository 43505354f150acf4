#pragma once
// The registry of the slots' workers and the sequencer that starts and stops them.
// Threads: everything but the walks runs on the station thread; StartAll's walk,
// StopAll's walk and the package verification run on one short-lived thread each.
// The state is the only value they share and sits under stateLock_.
// Destroying workers (RemoveAllWorkers, the destructor) joins their threads, so it
// must not happen on the station thread while a job may still send to it: at
// start-up, or after the station loop has stopped (a stopped loop releases senders).

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/DownloadWorker.h"

namespace quorvel::engine {

enum ManagerState : int { Unverified = 0, Ready = 1, Running = 2, Stopped = 3 };

class DownloadManager {
public:
    DownloadManager(app::Station& station, platform::MessageWindow& mainWindow, EngineFactory& engines);
    ~DownloadManager();
    DownloadManager(const DownloadManager&) = delete;
    DownloadManager& operator=(const DownloadManager&) = delete;

    void SetState(ManagerState state);
    ManagerState State() const;

    void AddWorker(const app::HubPortEntry& entry);
    void RemoveAllWorkers();
    // Null at or beyond the number of workers.
    DownloadWorker* WorkerAt(int i);
    int WorkerCount() const { return static_cast<int>(workers_.size()); }
    void AcceptDeviceByHubPort(const app::DeviceInfo& device);
    bool SignalRemoval(const std::string& friendlyName);

    void StartAll();
    // False when refused because a slot is still at work.
    bool StopAll();
    // Waits for the start, stop and verification walks (tests and shutdown; not while
    // a worker may wait for the calling thread).
    void JoinWalks();

    // Worker 0's package-wide operations; without workers they do nothing and report failure.
    void VerifyPackage(std::shared_ptr<platform::MessageWindow> window);
    int PreLoadPackage();
    void PackageVersionText(int kind, std::string& text);
    void FillVersionInfo(app::VersionInfo* info);

    void ShowSlotElapsed(int slot);

private:
    app::Station& station_;
    platform::MessageWindow& window_;
    EngineFactory& engines_;
    mutable std::mutex stateLock_;
    ManagerState state_ = Unverified;
    // The walks never get joined on the station thread while they may still run (a
    // walk can wait for a worker that waits for the station thread); finished ones
    // are collected in JoinWalks and the destructor.
    std::vector<std::thread> walks_;
    std::vector<std::unique_ptr<DownloadWorker>> workers_;
};

}  // namespace quorvel::engine
