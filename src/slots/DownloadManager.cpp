#include "slots/DownloadManager.h"

#include <cstdio>

#include "station/Messages.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::engine {

DownloadManager::DownloadManager(app::Station& station, app::MessageWindow& mainWindow, EngineFactory& engines)
    : station_(station), window_(mainWindow), engines_(engines) {}

DownloadManager::~DownloadManager() {
    {
        std::lock_guard g(stateLock_);
        quit_ = true;
        ++generation_;  // a walk under way ends at its next step
    }
    walkChanged_.notify_all();
    if (walker_.joinable()) walker_.join();
    for (auto& t : verifications_)
        if (t.joinable()) t.join();
    DestroyWorkers();
}

void DownloadManager::DestroyWorkers() {
    for (auto& w : workers_) w->BeginClose();
    while (!workers_.empty()) workers_.pop_back();
}

void DownloadManager::JoinWalks() {
    {
        std::unique_lock lk(stateLock_);
        station_.clock.WaitFor(lk, walkChanged_, platform::kForever,
                               [&] { return quit_ || (walked_ == generation_ && !walking_); });
    }
    for (auto& t : verifications_)
        if (t.joinable()) t.join();
    verifications_.clear();
}

void DownloadManager::Walker() {
    std::unique_lock lk(stateLock_);
    for (;;) {
        station_.clock.WaitFor(lk, walkChanged_, platform::kForever, [&] { return quit_ || walked_ != generation_; });
        if (quit_) return;
        const std::uint64_t generation = walked_ = generation_;
        walking_ = true;
        // A stop has told the workers already; only a start walks.
        for (std::size_t i = 0; state_ == ManagerState::Running && i < workers_.size() && Current(generation); ++i) {
            // Start never blocks, so the lock keeps a Stop from slipping in between the
            // check and the step.
            workers_[i]->Start();
            // The worker's own pause after its Start, then 100 ms to the next; a newer
            // press ends the pause and the walk at once. A Stop may come in meanwhile.
            const platform::Millis pause = DownloadWorker::kStartPauseMs + (i + 1 < workers_.size() ? 100 : 0);
            station_.clock.WaitFor(lk, walkChanged_, pause, [&] { return !Current(generation); });
        }
        walking_ = false;
        walkChanged_.notify_all();
    }
}

void DownloadManager::SetState(ManagerState state) {
    std::lock_guard g(stateLock_);
    state_ = state;
}

ManagerState DownloadManager::State() const {
    std::lock_guard g(stateLock_);
    return state_;
}

void DownloadManager::AddWorker(const app::HubPortEntry& entry) {
    auto& list = station_.slotList;
    const int row = list.RowCount();
    if (row < app::kSlotCount) {
        const auto s = static_cast<std::size_t>(row);
        station_.slots.rowShown[s].store(false);
        const auto state = station_.bindings.State(row);
        if (state == app::BindState::AllBinded || state == app::BindState::PreloaderBinded) {
            const int r = list.InsertRow("");
            list.EditRow(r, [&](app::SlotRow& sr) { FillBoundRow(station_, row, sr); });
            station_.slots.rowShown[s].store(true);
        }
    }
    auto worker = std::make_unique<DownloadWorker>(station_, window_, engines_, row);
    worker->SetHubPort(entry);
    workers_.push_back(std::move(worker));
}

void DownloadManager::RemoveAllWorkers() {
    JoinWalks();
    DestroyWorkers();
    station_.slotList.DeleteAllRows();
}

DownloadWorker* DownloadManager::WorkerAt(int i) {
    if (i < 0 || i >= static_cast<int>(workers_.size())) return nullptr;
    return workers_[static_cast<std::size_t>(i)].get();
}

void DownloadManager::AcceptDeviceByHubPort(const app::DeviceInfo& device) {
    for (auto& w : workers_)
        if (w->HubPort() == device.hubPort) {
            w->AcceptDevice(device);
            return;
        }
}

void DownloadManager::StartAll() {
    const int rows = station_.slotList.RowCount();
    for (int r = 0; r < rows; ++r) {
        station_.slotList.SetCellText(r, app::COL_TIMER, "");
        if (auto* w = WorkerAt(r)) {
            w->Display().HideCell(r, app::COL_PROGRESS);
            w->Display().HideCell(r, app::COL_RESULT);
        }
    }
    {
        std::lock_guard g(stateLock_);
        if (state_ != ManagerState::Ready) return;
        state_ = ManagerState::Running;
        ++generation_;
        if (!walker_.joinable()) walker_ = std::thread([this] { Walker(); });
    }
    walkChanged_.notify_all();
}

bool DownloadManager::StopAll(const std::function<bool()>& first) {
    const int rows = station_.slotList.RowCount();
    bool refused = false, stopped = false;
    {
        // No job begins or ends while the slots are checked and the workers told: a
        // job has its slot BUSY before the check, or it learns of the Stop and waits.
        std::lock_guard g(stateLock_);
        std::vector<std::unique_lock<std::mutex>> held;
        held.reserve(workers_.size());
        for (auto& w : workers_) held.push_back(w->HoldJobSteps());
        refused = first && !first();
        // Without running workers no job runs: a slot bound by a phone that waits for a
        // package (a Start without one) must not hold the station running for good.
        for (int r = 0; !refused && state_ == ManagerState::Running && r < rows && r < app::kSlotCount; ++r) {
            const auto state = station_.bindings.State(r);
            refused = state == app::BindState::Busy || state == app::BindState::BromBinded ||
                      state == app::BindState::DaBinded;
        }
        if (!refused) {
            for (int r = 0; r < rows; ++r) station_.slotList.SetCellText(r, app::COL_TIMER, "");
            if (state_ == ManagerState::Running) {
                state_ = ManagerState::Stopped;
                ++generation_;
                for (auto& w : workers_) w->Stop();
                stopped = true;
            }
        }
    }
    if (refused) return false;
    if (!stopped) return true;
    walkChanged_.notify_all();
    window_.Send(app::AllStopped{});  // nobody handles it
    return true;
}

void DownloadManager::VerifyPackage(std::shared_ptr<app::MessageWindow> window) {
    if (State() != ManagerState::Unverified || workers_.empty()) return;
    workers_.front()->SetChecksumWindow(std::move(window));
    verifications_.emplace_back([this] { workers_.front()->VerifyPackage(); });
}

int DownloadManager::PreLoadPackage() {
    return workers_.empty() ? 1 : workers_.front()->PreLoadPackage();
}

void DownloadManager::PackageVersionText(app::PackageKind kind, std::string& text) {
    if (!workers_.empty()) workers_.front()->PackageVersionText(kind, text);
}

app::EngineVersions DownloadManager::EngineVersionTexts() {
    app::VersionInfo record{};
    if (!workers_.empty()) workers_.front()->FillVersionInfo(&record);
    return app::VersionsOf(record);
}

void DownloadManager::ShowSlotElapsed(int slot) {
    engine::ShowSlotElapsed(station_, slot);
}

}  // namespace quorvel::engine
