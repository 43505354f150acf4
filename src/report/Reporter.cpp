#include "report/Reporter.h"

#include <unistd.h>

#include <algorithm>
#include <tuple>
#include <utility>

#include "history/JobHistoryReader.h"
#include "history/JobHistorySummary.h"
#include "packages/TextFormat.h"
#include "station/Texts.h"

namespace quorvel::report {

namespace {

using packages::Format;

constexpr std::size_t kJobWindow = 64;  // jobs handed to the link and not yet acknowledged
constexpr platform::Millis kSaveEveryMs = 1000;
constexpr platform::Millis kGoodbyeMs = 2000;

enum Link { NOT_YET = 0, CONNECTED = 1, REFUSED = 2, UNREACHABLE = 3 };

const char* StageWord(engine::SlotStage stage) {
    switch (stage) {
        case engine::SlotStage::IDLE: return "idle";
        case engine::SlotStage::FLASHING:
        case engine::SlotStage::SWITCHING: return "flashing";
        case engine::SlotStage::PASS: return "pass";
        case engine::SlotStage::FAIL: return "fail";
        case engine::SlotStage::INTERRUPTED: return "interrupted";
    }
    return "idle";
}

}  // namespace

Reporter::Reporter(Options options, platform::Clock& clock)
    : options_(std::move(options)),
      clock_(clock),
      root_(TopicRoot(options_.settings)),
      outbox_(options_.testLogDir, app::LocalDay(Now())) {
    todayDay_ = app::LocalDay(Now());
    today_ = app::ReadJobHistory(options_.testLogDir, todayDay_, todayDay_).jobs;
    outbox_.Save();  // a first start fixes where the outbox begins
    link_ = std::make_unique<MqttLink>(options_.settings,
                                       "quorvel-" + options_.settings.station + "-" + std::to_string(getpid()), *this);
    thread_ = std::thread([this] { Run(); });
    std::string error;
    const std::string will =
        StationStateChanged(options_.settings.station, Now(), StationState::Offline, options_.slots, options_.version);
    if (!link_->Start({root_ + "state", will}, error)) LinkState(REFUSED, error);
}

Reporter::~Reporter() {
    Stop();
}

app::TimeStamp Reporter::Now() const {
    return app::LocalTimeStamp(clock_.WallSeconds());
}

void Reporter::SlotChanged(int slot, const engine::SlotState& state) {
    if (slot < 0 || slot >= kMaxSlots) return;
    std::lock_guard g(mutex_);
    slotIn_[static_cast<std::size_t>(slot)] = state;
    dirty_ = true;
    wake_.notify_one();
}

void Reporter::StationChanged(StationState state) {
    std::lock_guard g(mutex_);
    stateIn_ = state;
    dirty_ = true;
    wake_.notify_one();
}

void Reporter::PackageChanged(const PackageReport& package) {
    std::lock_guard g(mutex_);
    packageIn_ = package;
    dirty_ = true;
    wake_.notify_one();
}

void Reporter::JobWritten(const app::JobRecord& job) {
    std::lock_guard g(mutex_);
    jobsIn_.push_back({job, std::chrono::steady_clock::now()});
    dirty_ = true;
    wake_.notify_one();
}

void Reporter::OnConnected() {
    LinkState(CONNECTED, {});
}
void Reporter::OnRefused(const std::string& reason) {
    LinkState(REFUSED, reason);
}
void Reporter::OnUnreachable(const std::string& reason) {
    LinkState(UNREACHABLE, reason);
}

void Reporter::LinkState(int state, const std::string& reason) {
    std::lock_guard g(mutex_);
    linkState_ = state;
    linkReason_ = reason;
    ++linkIn_;
    dirty_ = true;
    wake_.notify_one();
}

void Reporter::OnAcknowledged(int id) {
    std::lock_guard g(mutex_);
    acksIn_.push_back(id);
    dirty_ = true;
    wake_.notify_one();
}

void Reporter::Stop() {
    {
        std::lock_guard g(mutex_);
        if (stop_ && !thread_.joinable()) return;
        stop_ = true;
        dirty_ = true;
        wake_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
    link_->Stop();
}

void Reporter::Publish(const std::string& leaf, const std::string& payload, bool retained) {
    link_->Publish(root_ + leaf, payload, retained);
}

SlotReport Reporter::Describe(int slot, const engine::SlotState& s, platform::Millis now) {
    const auto i = static_cast<std::size_t>(slot);
    SlotReport r;
    r.lane = slot;
    r.state = StageWord(s.stage);
    const bool running = s.stage == engine::SlotStage::FLASHING || s.stage == engine::SlotStage::SWITCHING;
    const bool wasRunning = slots_[i] && slots_[i]->state == "flashing";
    if (running && !wasRunning) {
        jobStart_[i] = now;
        lastJobId_[i].clear();
    }
    // A new job starts at 0 whatever the last one reached.
    r.percent = s.stage == engine::SlotStage::IDLE || (running && !wasRunning) ? 0
                : s.stage == engine::SlotStage::PASS                           ? 100
                                                     : static_cast<int>(std::min<std::uint32_t>(s.percent, 100));
    r.step = !s.sprdStepName.empty() && running ? s.sprdStepName : s.step;
    if (options_.portOf) r.port = options_.portOf(slot);
    if (running)
        r.jobSeconds = (now - jobStart_[i]) / 1000;
    else if (slots_[i])
        r.jobSeconds = slots_[i]->state == "flashing" ? (now - jobStart_[i]) / 1000 : slots_[i]->jobSeconds;
    r.transactionId = running ? std::string() : lastJobId_[i];
    if (s.stage == engine::SlotStage::FAIL || s.stage == engine::SlotStage::INTERRUPTED) r.reason = s.outcome.error;
    r.phone = s.outcome.device;
    return r;
}

CountersReport Reporter::Counters() {
    const int day = app::LocalDay(Now());
    if (day != todayDay_) {
        todayDay_ = day;
        std::erase_if(today_, [&](const app::JobRecord& j) { return app::LocalDay(j.end) != day; });
    }
    CountersReport c;
    if (options_.counters) std::tie(c.total, c.fail) = options_.counters();
    const auto summary = app::Summarise(today_);
    if (!summary.empty()) {
        const auto& all = summary.back();
        c.todayPass = all.passes;
        c.todayFail = all.fails;
        c.todayInterrupted = all.interrupted;
        c.phonesPerHour = all.phonesPerHour;
    }
    return c;
}

void Reporter::PublishJobs() {
    const std::string& station = options_.settings.station;
    while (outbox_.InFlight() < kJobWindow) {
        auto jobs = outbox_.Next(kJobWindow - outbox_.InFlight());
        if (jobs.empty()) return;
        for (const auto& job : jobs) {
            const int mid = link_->Publish(root_ + "jobs", WorkCompleted(station, job.record, job.line), false);
            if (mid < 0) continue;  // stays unacknowledged: sent again on the next connection
            tickets_[mid] = {job.ticket, job.record.jobId};
            if (job.record.result == app::JobResult::Fail)
                link_->Publish(root_ + "faults", FaultOccurred(station, job.record), false);
        }
    }
}

void Reporter::Run() {
    const std::string& station = options_.settings.station;
    platform::Millis nextBeat = platform::kForever;
    platform::Millis nextSave = clock_.Now() + kSaveEveryMs;
    platform::Millis goodbyeBy = platform::kForever;
    int goodbyeMid = -1;
    bool goodbyeAcked = false;
    int linkSeen = 0;
    std::unique_lock lk(mutex_);
    while (true) {
        platform::Millis deadline = std::min(nextSave, nextBeat == platform::kForever ? nextSave : nextBeat);
        if (goodbyeBy != platform::kForever) deadline = std::min(deadline, goodbyeBy);
        clock_.WaitUntil(lk, wake_, deadline, [&] { return dirty_; });
        dirty_ = false;
        const bool stopping = stop_;
        const bool linkChanged = linkIn_ != linkSeen;
        linkSeen = linkIn_;
        const int link = linkState_;
        const std::string reason = linkReason_;
        auto slotsIn = slotIn_;
        slotIn_ = {};
        const auto stateIn = std::exchange(stateIn_, std::nullopt);
        const auto packageIn = std::exchange(packageIn_, std::nullopt);
        const auto jobsIn = std::exchange(jobsIn_, {});
        const auto acksIn = std::exchange(acksIn_, {});
        lk.unlock();

        const platform::Millis now = clock_.Now();
        bool resend = false;
        if (linkChanged) {
            const bool was = connected_;
            connected_ = link == CONNECTED;
            if (connected_ && !was) {
                resend = true;
                nextBeat = now + kHeartbeatMs;
            }
            if (!connected_) {
                nextBeat = platform::kForever;
                tickets_.clear();
            }
            // Said once per change; a reconnection after a cut is a change back.
            // A refusal is said again when its reason changes; the rest once per change.
            const std::string said = link == REFUSED ? reason : std::string();
            if (options_.tell && (link != toldState_ || said != toldReason_)) {
                toldState_ = link;
                toldReason_ = said;
                const char* where = options_.settings.broker.c_str();
                if (link == CONNECTED)
                    options_.tell(Format(app::texts::kReportConnectedFormat, where, station.c_str()));
                if (link == REFUSED) options_.tell(Format(app::texts::kReportRefusedFormat, where, reason.c_str()));
                if (link == UNREACHABLE)
                    options_.tell(Format(app::texts::kReportUnreachableFormat, where, reason.c_str()));
            }
        }
        bool jobAcked = false;
        for (const int mid : acksIn) {
            if (mid == goodbyeMid) goodbyeAcked = true;
            if (const auto t = tickets_.find(mid); t != tickets_.end()) {
                Acknowledged(t->second);
                jobAcked = true;
                tickets_.erase(t);
            }
        }
        for (const auto& [job, at] : jobsIn) {
            // A job read from the outbox before its observer spoke leaves an entry behind: bounded.
            if (writtenAt_.size() > 4096) writtenAt_.clear();
            writtenAt_.emplace(job.jobId, at);
            const auto i = static_cast<std::size_t>(job.slot);
            if (job.slot >= 0 && job.slot < kMaxSlots) {
                lastJobId_[i] = job.jobId;
                lastJobSeconds_[i] = job.durationSeconds;
            }
            if (app::LocalDay(job.end) == todayDay_) today_.push_back(job);
            countersDirty_ = true;
        }
        std::vector<int> slotsChanged;
        for (int slot = 0; slot < kMaxSlots; ++slot) {
            const auto i = static_cast<std::size_t>(slot);
            if (slotsIn[i]) {
                SlotReport r = Describe(slot, *slotsIn[i], now);
                if (!slots_[i] || !(*slots_[i] == r)) slotsChanged.push_back(slot);
                slots_[i] = std::move(r);
            } else if (slots_[i] && slots_[i]->state != "flashing" && slots_[i]->transactionId != lastJobId_[i]) {
                // The job's line came after its verdict: the slot now names it.
                slots_[i]->transactionId = lastJobId_[i];
                slots_[i]->jobSeconds = lastJobSeconds_[i];
                slotsChanged.push_back(slot);
            }
        }
        bool stateChanged = stateIn && *stateIn != state_;
        if (stateIn) state_ = *stateIn;
        bool packageChanged = packageIn && packageIn != package_;
        if (packageIn) package_ = packageIn;

        if (connected_) {
            const app::TimeStamp at = Now();
            if (resend) {
                outbox_.Rewind();
                catchingUpSince_ = std::chrono::steady_clock::now();
                caughtUp_ = 0;
                stateChanged = packageChanged = countersDirty_ = true;
                slotsChanged.clear();
                for (int slot = 0; slot < options_.slots && slot < kMaxSlots; ++slot) slotsChanged.push_back(slot);
            }
            if (stateChanged && goodbyeMid < 0)
                Publish("state", StationStateChanged(station, at, state_, options_.slots, options_.version), true);
            if (packageChanged && package_) Publish("package", PackageInUse(station, at, *package_), true);
            for (const int slot : slotsChanged) {
                const auto i = static_cast<std::size_t>(slot);
                if (!slots_[i]) {
                    slots_[i] = SlotReport{};
                    slots_[i]->lane = slot;
                }
                Publish("slots/" + std::to_string(slot), SlotStateMessage(station, at, *slots_[i]), true);
            }
            // The files are read when there may be more to send: a job written, room
            // made in a full window, a new connection, and once a second for lines a
            // full disk held back.
            if (resend || !jobsIn.empty() || now >= nextSave || (jobAcked && windowFull_)) {
                PublishJobs();
                windowFull_ = outbox_.InFlight() >= kJobWindow;
            }
            if (catchingUpSince_ && outbox_.InFlight() == 0) {
                if (caughtUp_ > 0 && options_.log) {
                    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - *catchingUpSince_)
                                        .count();
                    options_.log("reporting: caught up " + std::to_string(caughtUp_) + " jobs in " +
                                 std::to_string(ms) + " ms after connecting");
                }
                catchingUpSince_.reset();
            }
            if (countersDirty_) {
                Publish("counters", UnitsTested(station, at, Counters()), true);
                countersDirty_ = false;
            }
            if (now >= nextBeat) {
                Publish("heartbeat", Heartbeat(station, at), false);
                nextBeat = now + kHeartbeatMs;
            }
        }
        if (now >= nextSave) {
            outbox_.Save();
            nextSave = now + kSaveEveryMs;
        }
        if (stopping && goodbyeBy == platform::kForever) {
            goodbyeBy = now + kGoodbyeMs;
            if (connected_)
                goodbyeMid = link_->Publish(
                    root_ + "state",
                    StationStateChanged(station, Now(), StationState::Offline, options_.slots, options_.version), true);
        }
        // The goodbye waits for the broker to take it and the jobs in flight, a moment at most.
        if (goodbyeBy != platform::kForever &&
            (!connected_ || now >= goodbyeBy || (goodbyeAcked && outbox_.InFlight() == 0)))
            break;
        lk.lock();
    }
    outbox_.Save();
    if (options_.log && !delaysMs_.empty()) options_.log(DelaySummary());
}

void Reporter::Acknowledged(const Sent& sent) {
    outbox_.Acknowledge(sent.ticket);
    if (catchingUpSince_) ++caughtUp_;
    if (const auto w = writtenAt_.find(sent.jobId); w != writtenAt_.end()) {
        delaysMs_.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - w->second).count());
        writtenAt_.erase(w);
    }
}

std::string Reporter::DelaySummary() const {
    std::vector<double> d = delaysMs_;
    std::sort(d.begin(), d.end());
    const auto at = [&](double q) {
        return d[std::min(d.size() - 1, static_cast<std::size_t>(q * static_cast<double>(d.size())))];
    };
    return Format(
        "reporting: %zu jobs from their history line to the broker's acknowledgement: p50 %.1f ms, p99 %.1f ms, "
        "max %.1f ms",
        d.size(), at(0.5), at(0.99), d.back());
}

}  // namespace quorvel::report
