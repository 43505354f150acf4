#pragma once
// One download slot: its three engine objects, its events, its thread and its
// row's display state. The thread serves one phone after another, by the kind of
// the device handed over, until the station stops.
// Threads: AcceptDevice, NotifyDevice and SetThreadIndex on the station thread;
// Start and Stop on the manager's walk thread, never at once; the jobs on the
// worker's own thread; the package-wide operations (worker 0) on the station thread
// or the verification thread while no job runs.
// A hand-over and a job's start and end are one step each under handOverLock_, so a
// phone handed over as a job ends is either part of that job or served after it.
// The manager's Stop holds every worker's step (HoldJobSteps) while it checks the
// slots and tells the workers, so a job either has its slot BUSY before that check
// or never begins.
// Start never waits for the previous run's thread: if it still finishes a job, it
// is kept and simply not stopped.
// Lock order (a lock is only taken while holding those above it):
//   1. handOverLock_  the manager takes every worker's, in worker order, under its own
//                     state lock (HoldJobSteps); held across the binding table's locks
//   2. countLock_     held across the statistics store's lock; never with flagLock_
//   3. flagLock_
//   4. deviceLock_
//   5. events_'s own  innermost: WorkerEvents calls nothing out
// The display's lock (display_) is never taken under any of them. The manager's Stop
// cancels engine jobs with every handOverLock_ held: an engine's CancelTask must not
// wait for its job.

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "engines/EngineInterfaces.h"
#include "engines/EngineRecords.h"
#include "slots/SlotDisplay.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::engine {

// The MTK engine refused to pre-load the package: the console tells the operator.
inline constexpr int kPreLoadRefused = -1;

// NotifyCode values: an EventKind's own number, or one of these.
constexpr std::uint32_t NotifyCodeOf(app::EventKind kind) {
    return static_cast<std::uint32_t>(kind);
}
inline constexpr std::uint32_t NOTIFY_NONE = 0;
inline constexpr std::uint32_t NOTIFY_REMOVED = 5;

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

// How binding hands a device over.
enum class HandOver {
    PLAIN,    // the phone is served when the worker runs
    BUSY,     // likewise, and the slot is BUSY from the hand-over on
    DA_MODE,  // the DA form of the phone a job switched: part of that job, never served alone
};

class DownloadWorker {
public:
    DownloadWorker(app::Station& station, app::MessageWindow& mainWindow, EngineFactory& engines, int threadIndex);
    ~DownloadWorker();
    DownloadWorker(const DownloadWorker&) = delete;
    DownloadWorker& operator=(const DownloadWorker&) = delete;

    void SetThreadIndex(int index) { threadIndex_.store(index); }
    int ThreadIndex() const { return threadIndex_.load(); }
    void SetHubPort(const app::HubPortEntry& entry) { hubPort_ = entry; }
    const app::HubPortEntry& HubPort() const { return hubPort_; }
    app::DeviceInfo Device() const;
    SlotDisplay& Display() { return display_; }

    // False when the device was not taken: a phone in DA mode outside a job.
    bool AcceptDevice(const app::DeviceInfo& device, HandOver how = HandOver::PLAIN);
    void NotifyDevice(std::uint32_t code, const std::string& name);
    // Station thread: a phone came to this slot's socket while the slot was BUSY and
    // binding left it alone. The row names it until a phone is handed over or leaves.
    void NoteUnserved(const app::DeviceInfo& device);
    std::uint32_t LastNotifyCode() const;

    // Manager's walk thread, which pauses kStartPauseMs after it (not under its lock).
    void Start();
    static constexpr platform::Millis kStartPauseMs = 10;
    void Stop();
    // No job of this worker begins or ends while the lock is held (station thread).
    std::unique_lock<std::mutex> HoldJobSteps() { return std::unique_lock(handOverLock_); }
    bool IsRunning() const;
    // The program is ending: jobs that end from now on are not counted.
    void BeginClose();

    // Worker 0 only: the package-wide engine operations.
    void SetChecksumWindow(std::shared_ptr<app::MessageWindow> window);
    // 0, or kPreLoadRefused when the MTK engine refused the scatter package.
    int PreLoadPackage();
    void PackageVersionText(app::PackageKind kind, std::string& text);
    void FillVersionInfo(app::VersionInfo* info);
    void VerifyPackage();

    MtkEngine& Mtk() { return *mtk_; }
    FpEngine& Fp() { return *fp_; }
    SprdEngine& Sprd() { return *sprd_; }

    // The name with its last parenthesised part moved to the front.
    static std::string DisplayName(const std::string& name);

private:
    void ThreadMain();
    // False when Stop or the end came first: the job does not begin.
    bool JobStart(int slot, WorkerEvents::Event event);
    // An SPRD job without a port number: the slot stays BUSY with its timer until the
    // phone leaves.
    void DropJob(int slot);
    void SprdJob(bool& firstPhase);
    void MtkJob();
    void FpJob();
    // The binding an MTK job leaves behind: by which locations the slot has (worker
    // thread at a job's end, or the station thread when a waiting phone leaves).
    void RestoreMtkBinding(int slot);
    void ShowBindState(int slot);
    // The first device of a slot while the station runs: fills its row (and missing rows below).
    void ShowRow(int slot, const std::string& shown);
    // The job's slot leaves BUSY: `restore` sets its state; one step with the hand-overs.
    template <class Restore>
    void JobEnd(Restore restore);
    void CountJob(bool failed);
    // Settles the job's outcome on the row, keeps it in the history (interrupted when cut
    // short), then counts it. `reasonWithoutVerdict`: why it failed when the engine said nothing.
    void FinishJob(int slot, const char* platform, std::int64_t startedAt, bool failed,
                   const char* reasonWithoutVerdict = nullptr);
    // Stop or the program's end came: a job about to start is cancelled at once.
    bool CutShort();

    app::Station& station_;
    app::MessageWindow& window_;
    std::unique_ptr<SprdEngine> sprd_;
    std::unique_ptr<FpEngine> fp_;
    WorkerEvents events_;
    std::mutex handOverLock_;
    bool inJob_ = false;  // under handOverLock_
    // Under handOverLock_: a device handed over while the station was stopped, not
    // drawn yet; a job dropped for want of a port number holds the slot.
    bool undrawn_ = false;
    bool dropped_ = false;
    // A device handed over while the station was stopped (STOP: none); under handOverLock_.
    WorkerEvents::Event pending_ = WorkerEvents::STOP;
    std::mutex countLock_;
    bool closing_ = false;                 // under countLock_
    std::int64_t sprdStartedAt_ = 0;       // worker thread: the first phase's start, kept for the second
    app::PhoneIdentity sprdPhase1Device_;  // worker thread: the phone as the first phase read it
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
    std::shared_ptr<app::MessageWindow> checksumWindow_;
    std::unique_ptr<MtkEngine> mtk_;
};

}  // namespace quorvel::engine
