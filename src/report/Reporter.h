#pragma once
// The station's reports to a broker. The station thread, the workers and the slots'
// displays hand it typed values and never wait: each call stores the latest value under
// a short lock and wakes the reporter's own thread, which publishes. That thread keeps
// the outbox (the history after the broker's last acknowledgement) going out in order,
// the retained slot, state, counters and package messages current, and a heartbeat
// every 30 s of the station's clock. The link's thread only reports what the broker did.

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "history/JobRecord.h"
#include "platform/Clock.h"
#include "report/MqttLink.h"
#include "report/ReportOutbox.h"
#include "report/ReportPayloads.h"
#include "report/ReportSettings.h"
#include "slots/SlotState.h"

namespace quorvel::report {

inline constexpr platform::Millis kHeartbeatMs = 30000;
inline constexpr int kMaxSlots = 16;

class Reporter final : public MqttLink::Listener {
public:
    struct Options {
        ReportSettings settings;
        std::string testLogDir;
        int slots = 0;        // how many slots the station drives
        std::string version;  // the station's version
        // The station's running counters (total, fail); called on the reporter's thread.
        std::function<std::pair<std::uint32_t, std::uint32_t>()> counters;
        // The port name of a slot; called on the reporter's thread.
        std::function<std::string(int slot)> portOf;
        // A change of the broker's state in the operator's words; called on the reporter's thread.
        std::function<void(const std::string&)> tell;
        // The station's log: the catch-up after an outage, the delays at the end.
        std::function<void(const std::string&)> log;
    };

    // Starts the thread and the connection; never waits for the broker.
    Reporter(Options options, platform::Clock& clock);
    // Stop, if not done.
    ~Reporter() override;

    // Any thread; none of them waits for the broker.
    void SlotChanged(int slot, const engine::SlotState& state);
    void StationChanged(StationState state);
    void PackageChanged(const PackageReport& package);
    // A history line is on disk (the history's observer, on the writing worker's thread).
    void JobWritten(const app::JobRecord& job);

    // Publishes Offline, waits a moment for the broker to take it and what is in flight,
    // saves the mark and ends the thread. The station's thread at close.
    void Stop();

private:
    // The link's thread.
    void OnConnected() override;
    void OnRefused(const std::string& reason) override;
    void OnUnreachable(const std::string& reason) override;
    void OnAcknowledged(int id) override;
    void LinkState(int state, const std::string& reason);

    void Run();
    // Reporter thread, without mutex_.
    void Publish(const std::string& leaf, const std::string& payload, bool retained);
    void PublishJobs();
    SlotReport Describe(int slot, const engine::SlotState& state, platform::Millis now);
    CountersReport Counters();
    app::TimeStamp Now() const;

    Options options_;
    platform::Clock& clock_;
    const std::string root_;
    std::unique_ptr<MqttLink> link_;

    // Guarded by mutex_: what the callers and the link hand over.
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    bool dirty_ = false;
    std::array<std::optional<engine::SlotState>, kMaxSlots> slotIn_{};
    std::optional<StationState> stateIn_;
    std::optional<PackageReport> packageIn_;
    struct Written {
        app::JobRecord job;
        std::chrono::steady_clock::time_point at;
    };
    std::vector<Written> jobsIn_;
    std::vector<int> acksIn_;
    int linkIn_ = 0;     // changes since the thread last looked
    int linkState_ = 0;  // 0 not yet, 1 connected, 2 refused, 3 unreachable
    std::string linkReason_;

    // Reporter thread only.
    ReportOutbox outbox_;
    bool connected_ = false;
    bool windowFull_ = false;
    int toldState_ = 0;
    std::string toldReason_;
    struct Sent {
        std::uint64_t ticket;
        std::string jobId;
    };
    std::map<int, Sent> tickets_;  // message id -> outbox ticket
    // Real time from a job's line on disk to the broker's acknowledgement, measured only
    // (never waited on): what the log reports at the end.
    std::map<std::string, std::chrono::steady_clock::time_point> writtenAt_;
    std::vector<double> delaysMs_;
    std::optional<std::chrono::steady_clock::time_point> catchingUpSince_;
    std::size_t caughtUp_ = 0;
    void Acknowledged(const Sent& sent);
    std::string DelaySummary() const;
    std::array<std::optional<SlotReport>, kMaxSlots> slots_{};
    std::array<platform::Millis, kMaxSlots> jobStart_{};
    std::array<std::string, kMaxSlots> lastJobId_{};
    std::array<std::int64_t, kMaxSlots> lastJobSeconds_{};
    StationState state_ = StationState::Stopped;
    std::optional<PackageReport> package_;
    std::vector<app::JobRecord> today_;
    int todayDay_ = 0;
    bool countersDirty_ = true;

    std::thread thread_;
};

}  // namespace quorvel::report
