#pragma once
// The registry of the slots' workers and the sequencer that starts and stops them.
// Threads: everything but the start walk runs on the station thread. Start walks run
// one after the other on one walk thread; every accepted StartAll and StopAll moves
// the walk generation on, and a walk ends at the first step that finds its generation
// gone, so only the latest Start's walk goes on. StopAll tells the workers at once
// (Stop never blocks) while it holds every worker's job steps, so no job can begin
// after an accepted Stop and none that began is missed by its check. The package
// verification runs on a short-lived thread. The state, the generation and the
// workers' Start and Stop calls sit under stateLock_.
// Destroying workers (RemoveAllWorkers, the destructor) joins their threads, so it
// must not happen on the station thread while a job may still send to it: at
// start-up, or after the station loop has stopped (a stopped loop releases senders).
// Jobs that end while the workers are destroyed are not counted: the program ends.

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "slots/DownloadWorker.h"

namespace quorvel::engine {

enum class ManagerState { Unverified, Ready, Running, Stopped };

class DownloadManager {
public:
    DownloadManager(app::Station& station, app::MessageWindow& mainWindow, EngineFactory& engines);
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

    void StartAll();
    // False when refused because a slot is still at work, or `first` (run before the
    // slots are checked, while no job can begin or end) refused.
    bool StopAll(const std::function<bool()>& first = nullptr);
    // Waits until the walks asked for so far and the verification have run (tests and
    // shutdown; not while a worker may wait for the calling thread).
    void JoinWalks();

    // Worker 0's package-wide operations; without workers they do nothing and report failure
    // (PreLoadPackage: 1).
    void VerifyPackage(std::shared_ptr<app::MessageWindow> window);
    int PreLoadPackage();
    void PackageVersionText(app::PackageKind kind, std::string& text);
    app::EngineVersions EngineVersionTexts();

    void ShowSlotElapsed(int slot);

private:
    app::Station& station_;
    app::MessageWindow& window_;
    EngineFactory& engines_;
    mutable std::mutex stateLock_;
    void Walker();
    // Under stateLock_: the walk generation still is `generation`.
    bool Current(std::uint64_t generation) const { return generation_ == generation; }
    void DestroyWorkers();

    ManagerState state_ = ManagerState::Unverified;
    std::uint64_t generation_ = 0;  // moved on by every accepted StartAll and StopAll
    std::uint64_t walked_ = 0;      // the last generation the walk thread has taken up
    bool walking_ = false;
    bool quit_ = false;
    std::condition_variable walkChanged_;
    std::thread walker_;
    // The verification thread is joined in JoinWalks and the destructor, never while
    // it may still wait for the station thread.
    std::vector<std::thread> verifications_;
    std::vector<std::unique_ptr<DownloadWorker>> workers_;
};

}  // namespace quorvel::engine
