#include "slots/DownloadWorker.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "station/Messages.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::engine {

namespace {
// The SPRD timings the station has always kept, which benches are tuned to: the first
// phase reads the result cell every 500 ms and gives the engine 26 readings (about 13 s)
// to switch the phone to its download port; the second phase has no limit and needs no
// finer reading than every 5 s.
constexpr platform::Millis kSwitchPollMs = 500;
constexpr int kSwitchPolls = 26;
constexpr platform::Millis kDownloadPollMs = 5000;
}  // namespace

// ---- events ----

void WorkerEvents::Set(Event e) {
    {
        std::lock_guard g(mutex_);
        set_[e] = true;
    }
    cv_.notify_all();
}

void WorkerEvents::Clear(Event e) {
    std::lock_guard g(mutex_);
    set_[e] = false;
}

WorkerEvents::Event WorkerEvents::Wait() {
    std::unique_lock lk(mutex_);
    clock_.WaitFor(lk, cv_, platform::kForever, [&] { return set_[0] || set_[1] || set_[2] || set_[3]; });
    for (int e = STOP; e <= FP; ++e)
        if (set_[static_cast<std::size_t>(e)]) {
            set_[static_cast<std::size_t>(e)] = false;
            return static_cast<Event>(e);
        }
    return STOP;
}

bool WorkerEvents::Pause(platform::Millis ms) {
    std::unique_lock lk(mutex_);
    clock_.WaitFor(lk, cv_, ms, [&] { return shutdown_; });
    return !shutdown_;
}

void WorkerEvents::Shutdown() {
    {
        std::lock_guard g(mutex_);
        shutdown_ = true;
        set_[STOP] = true;
    }
    cv_.notify_all();
}

// ---- worker ----

DownloadWorker::DownloadWorker(app::Station& station, app::MessageWindow& mainWindow, EngineFactory& engines,
                               int threadIndex)
    : station_(station),
      window_(mainWindow),
      sprd_(engines.MakeSprd(mainWindow)),
      fp_(engines.MakeFp(mainWindow)),
      events_(station.clock),
      threadIndex_(threadIndex),
      display_(station),
      mtk_(engines.MakeMtk(mainWindow)) {
    events_.Set(WorkerEvents::STOP);  // created signalled; Start resets it
}

DownloadWorker::~DownloadWorker() {
    BeginClose();
    {
        std::lock_guard g(flagLock_);
        stopRequested_ = true;
    }
    // Unlike Stop, destruction also ends an SPRD job's polling and any engine job.
    events_.Shutdown();
    mtk_->CancelTask();
    fp_->CancelTask();
    sprd_->StopOnePortWork(0, 1);
    if (thread_.joinable()) thread_.join();
}

app::DeviceInfo DownloadWorker::Device() const {
    std::lock_guard g(deviceLock_);
    return device_;
}

std::uint32_t DownloadWorker::LastNotifyCode() const {
    std::lock_guard g(deviceLock_);
    return lastNotifyCode_;
}

bool DownloadWorker::IsRunning() const {
    std::lock_guard g(flagLock_);
    return deviceRunning_;
}

bool DownloadWorker::AcceptDevice(const app::DeviceInfo& device, HandOver how) {
    std::lock_guard handOver(handOverLock_);
    {
        std::lock_guard g(deviceLock_);
        device_ = device;  // also a dropped DA form: its removal must find this worker
    }
    const int slot = ThreadIndex();
    const bool slotKnown = slot >= 0 && slot < app::kSlotCount;
    if (how == HandOver::DA_MODE) {
        // The phone re-enumerated in DA mode because its job switched it: the job
        // serves it. Outside a job it is never served: binding may have tied this
        // socket to another phone's slot, whose job then flashes it a second time.
        if (!inJob_) return false;
        if (slotKnown) station_.bindings.SetState(slot, app::BindState::Busy);
        NotifyDevice(NotifyCodeOf(app::EventKind::MTK), device.friendlyName);
        return true;
    }
    const std::string name = device.friendlyName;
    WorkerEvents::Event event;
    switch (device.type) {
        case app::EventKind::SPRD: event = WorkerEvents::SPRD; break;
        case app::EventKind::MTK: event = WorkerEvents::MTK; break;
        case app::EventKind::CFG: event = WorkerEvents::FP; break;
        default: NotifyDevice(NOTIFY_NONE, app::texts::kNoDevice); return true;
    }
    NotifyDevice(NotifyCodeOf(device.type), name);
    // While the station is stopped (a last event of the ending run) the phone waits
    // for the next Start: a worker still ending its run must not begin a job now.
    if (!IsRunning() || !station_.stationRunning.load()) {
        pending_ = event;
        undrawn_ = !station_.stationRunning.load();
        return true;
    }
    if (how == HandOver::BUSY && slotKnown) station_.bindings.SetState(slot, app::BindState::Busy);
    events_.Set(event);
    return true;
}

std::string DownloadWorker::DisplayName(const std::string& name) {
    const auto open = name.rfind('(');
    if (open == std::string::npos) return name;
    return name.substr(open) + name.substr(0, open);
}

void DownloadWorker::NotifyDevice(std::uint32_t code, const std::string& name) {
    {
        std::lock_guard g(deviceLock_);
        lastNotifyCode_ = code;
    }
    const int slot = ThreadIndex();
    if (slot < 0 || slot >= app::kSlotCount) return;
    auto& list = station_.slotList;
    const auto s = static_cast<std::size_t>(slot);
    if (code == NotifyCodeOf(app::EventKind::MTK) || code == NotifyCodeOf(app::EventKind::SPRD) ||
        code == NotifyCodeOf(app::EventKind::CFG)) {
        // Nothing is drawn or kept while stopped: the job that serves this phone after
        // the next Start draws it and keeps its port name then.
        if (!station_.stationRunning.load()) return;
        const std::string shown = DisplayName(name);
        station_.bindings.SetComName(slot, shown);
        if (!station_.slots.rowShown[s].load()) {
            ShowRow(slot, shown);
            return;
        }
        const bool ongoing = code == NotifyCodeOf(app::EventKind::MTK) && shown.find("DA") != std::string::npos;
        list.EditRow(slot, [&](app::SlotRow& r) {
            r.progress.visible = false;
            r.result.visible = false;
            r.cells[app::COL_DEVICE].text = shown;
            r.cells[app::COL_DEVICE].colour = app::kBlack;
            r.cells[app::COL_DEVICE].icon = kIconDevice;
        });
        if (ongoing) display_.SetResult(slot, app::texts::kOngoing, kColourBlue);
        return;
    }
    const std::string com = station_.bindings.ComName(slot);
    if (code == NOTIFY_REMOVED) {
        {
            // The phone that held its slot without a port number has left: the slot
            // serves the next phone on its socket, and a Stop is no longer refused.
            std::lock_guard handOver(handOverLock_);
            // A phone that waited for the next Start has left: no job serves it then, and
            // a slot its BROM form bound is given back as after a job on it.
            if (std::exchange(pending_, WorkerEvents::STOP) == WorkerEvents::MTK &&
                station_.bindings.State(slot) == app::BindState::BromBinded) {
                RestoreMtkBinding(slot);
                ShowBindState(slot);
            }
            if (std::exchange(dropped_, false)) {
                const bool bound = station_.bindings.HsLocation(slot) != app::kUnbound;
                station_.bindings.ChangeState(slot, app::BindState::Busy,
                                              bound ? app::BindState::AllBinded : app::BindState::Idle);
                window_.KillTimer(slot);
                ShowBindState(slot);
            }
        }
        app::Rgb colour = kColourGrey;
        if (station_.package.kind == app::PackageKind::MtkCfg) {
            const app::FpJobState job = station_.slots.fpJob[s].load();
            if (job == app::FpJobState::Running) {
                station_.bindings.SetState(slot, app::BindState::AllBinded);
                colour = app::kBlack;
            } else if (job == app::FpJobState::Finished) {
                station_.bindings.SetState(slot, app::BindState::Busy);  // served this run: not again until Stop
            }
            // A departure: no job of this run served it (or the station stopped since),
            // and BUSY would make the slot ignore the next phone on its socket until a
            // Stop; removals reach the station seconds after the phones left, often
            // after the next Start.
        }
        list.EditRow(slot, [&](app::SlotRow& r) {
            r.cells[app::COL_DEVICE].text = com;
            r.cells[app::COL_DEVICE].colour = colour;
            r.cells[app::COL_DEVICE].icon = kIconPort;
        });
        return;
    }
    list.SetCellText(slot, app::COL_DEVICE, com);
}

void DownloadWorker::NoteUnserved(const app::DeviceInfo& device) {
    const int slot = ThreadIndex();
    if (slot < 0 || slot >= app::kSlotCount || !station_.stationRunning.load() ||
        !station_.slots.rowShown[static_cast<std::size_t>(slot)].load())
        return;
    const std::string shown =
        DisplayName(device.friendlyName) + station_.language.ChooseText(app::texts::kNotServedSlotBusy);
    station_.slotList.EditRow(slot, [&](app::SlotRow& r) {
        r.cells[app::COL_DEVICE].text = shown;
        r.cells[app::COL_DEVICE].colour = kColourRed;
        r.cells[app::COL_DEVICE].icon = kIconPort;
    });
}

void DownloadWorker::ShowRow(int slot, const std::string& shown) {
    // Row i is slot i. A phone bound while the station was stopped gets its row only
    // when served, so rows of such slots below this one are filled first; otherwise
    // this row would land on, and read, another slot's.
    auto& list = station_.slotList;
    const int first = list.FillRowsTo(slot, [&](int i, app::SlotRow& r) { FillBoundRow(station_, i, r); });
    for (int i = first; i <= slot; ++i) station_.slots.rowShown[static_cast<std::size_t>(i)].store(true);
    list.EditRow(slot, [&](app::SlotRow& r) {
        r.cells[app::COL_PROGRESS].text.clear();
        r.cells[app::COL_RESULT].text.clear();
        r.progress.visible = false;
        r.result.visible = false;
        r.cells[app::COL_DEVICE].text = shown;
        r.cells[app::COL_DEVICE].colour = app::kBlack;
        r.cells[app::COL_DEVICE].icon = kIconDevice;
    });
}

void DownloadWorker::Start() {
    {
        std::lock_guard handOver(handOverLock_);
        bool alive;
        {
            std::lock_guard g(flagLock_);
            alive = deviceRunning_;
            stopRequested_ = false;
            // Set here rather than on the new thread, so a hand-over right after Start
            // already finds the worker running.
            deviceRunning_ = true;
        }
        events_.Clear(WorkerEvents::STOP);
        if (pending_ != WorkerEvents::STOP) events_.Set(pending_);
        pending_ = WorkerEvents::STOP;
        // The previous run's thread has not ended yet (it finishes a job's last steps):
        // it stays, as if it had been started again. It never waited on a new device.
        if (!alive) {
            // Ended: joining it waits at most for its last row update.
            if (thread_.joinable()) thread_.join();
            // The device handed over while the worker was stopped is served now.
            const std::uint32_t code = LastNotifyCode();
            if (code == NotifyCodeOf(app::EventKind::SPRD)) events_.Set(WorkerEvents::SPRD);
            if (code == NotifyCodeOf(app::EventKind::MTK)) events_.Set(WorkerEvents::MTK);
            if (code == NotifyCodeOf(app::EventKind::CFG)) events_.Set(WorkerEvents::FP);
            thread_ = std::thread([this] { ThreadMain(); });
        }
    }
}

void DownloadWorker::Stop() {
    if (!IsRunning()) return;
    // The request first: a thread that wakes on StopEvent must find it.
    {
        std::lock_guard g(flagLock_);
        stopRequested_ = true;
    }
    events_.Clear(WorkerEvents::SPRD);
    events_.Clear(WorkerEvents::MTK);
    events_.Clear(WorkerEvents::FP);
    events_.Set(WorkerEvents::STOP);
    const std::uint32_t code = LastNotifyCode();
    if (code == NotifyCodeOf(app::EventKind::MTK)) mtk_->CancelTask();
    if (code == NotifyCodeOf(app::EventKind::CFG)) fp_->CancelTask();
}

void DownloadWorker::BeginClose() {
    std::lock_guard g(countLock_);
    closing_ = true;
}

bool DownloadWorker::CutShort() {
    {
        std::lock_guard g(countLock_);
        if (closing_) return true;
    }
    std::lock_guard g(flagLock_);
    return stopRequested_;
}

void DownloadWorker::CountJob(bool failed) {
    // A job cut short because the program ends is not a finished job.
    std::lock_guard g(countLock_);
    if (!closing_) station_.statistics.CountJob(failed);
}

void DownloadWorker::FinishJob(int slot, const char* platform, std::int64_t startedAt, bool failed,
                               const char* reasonWithoutVerdict) {
    // A job that passed in spite of a Stop passed; one that failed under it was cut short.
    const bool interrupted = failed && CutShort();
    // What the engine said of the job's end, completed by what the worker decided.
    SlotOutcome outcome = display_.Outcome();
    if (failed) {
        outcome.result = SlotOutcome::Result::FAILED;
        if (outcome.error.empty())
            outcome.error = reasonWithoutVerdict ? reasonWithoutVerdict : app::texts::kReasonEngineGaveNone;
    } else {
        outcome = {SlotOutcome::Result::PASSED, "", "", outcome.device};
    }
    display_.EndJob(slot, outcome, interrupted);
    if (station_.ExeDir().empty()) {  // a station without a folder keeps no history
        CountJob(failed);
        return;
    }
    app::JobRecord job;
    job.start = app::LocalTimeStamp(startedAt);
    job.end = app::LocalTimeStamp(station_.clock.WallSeconds());
    job.durationSeconds = job.end.utc - job.start.utc;
    job.jobId = app::MakeJobId(job.start, slot);
    job.machine = station_.settingsStore.MachineStamp();
    job.slot = slot;
    job.location = station_.bindings.HsLocation(slot);
    job.port = Device().friendlyName;
    job.platform = platform;
    // A machine-readable field: the same words whatever the operator's language.
    job.operation = app::DownloadTypeName(station_.package.downloadType).en;
    job.package = station_.package.ActivePath();
    job.version = station_.package.version;
    job.result = interrupted ? app::JobResult::Interrupted : failed ? app::JobResult::Fail : app::JobResult::Pass;
    job.failedStep = outcome.step;
    job.errorText = outcome.error;
    job.device = outcome.device;
    // The history line and the counters, in that order; a full disk holds both back.
    std::lock_guard g(countLock_);
    station_.statistics.RecordJob(std::move(job), !closing_);
}

void DownloadWorker::ThreadMain() {
    {
        std::lock_guard g(flagLock_);
        if (stopRequested_) {
            deviceRunning_ = false;
            return;
        }
    }
    bool sprdFirstPhase = true;
    for (;;) {
        switch (events_.Wait()) {
            case WorkerEvents::STOP: {
                NotifyDevice(NOTIFY_NONE, app::texts::kNoDevice);
                std::lock_guard g(flagLock_);
                if (!stopRequested_) break;  // started again meanwhile
                deviceRunning_ = false;
                return;
            }
            case WorkerEvents::SPRD: SprdJob(sprdFirstPhase); break;
            case WorkerEvents::MTK: MtkJob(); break;
            case WorkerEvents::FP: FpJob(); break;
        }
    }
}

bool DownloadWorker::JobStart(int slot, WorkerEvents::Event event) {
    const bool slotKnown = slot >= 0 && slot < app::kSlotCount;
    const auto s = static_cast<std::size_t>(slotKnown ? slot : 0);
    bool draw;
    {
        // Stop came between the hand-over and the job: the phone waits for the next
        // Start. Checked with the slot going BUSY in one step, so a Stop either finds
        // the slot BUSY (and a CFG job running) or keeps the job from beginning.
        std::lock_guard handOver(handOverLock_);
        if (CutShort()) {
            pending_ = event;
            return false;
        }
        if (slotKnown) {
            station_.bindings.SetState(slot, app::BindState::Busy);
            station_.slots.jobRunning[s].store(true);
            if (event == WorkerEvents::FP) station_.slots.fpJob[s].store(app::FpJobState::Running);
        }
        inJob_ = true;
        dropped_ = false;
        draw = std::exchange(undrawn_, false);
    }
    if (!slotKnown) return true;
    // A phone handed over while the station was stopped is drawn, and its port name
    // kept, only now.
    if (draw || !station_.slots.rowShown[s].load()) {
        const app::DeviceInfo device = Device();
        NotifyDevice(NotifyCodeOf(device.type), device.friendlyName);
    }
    station_.slots.startTime[s].store(station_.clock.WallSeconds());
    window_.SetTimer(slot, 1000);
    station_.slotList.SetCellIcon(slot, app::COL_DEVICE, kIconDevice);
    display_.BeginJob(slot);
    display_.SetResult(slot, app::texts::kOngoing, kColourBlue);
    display_.ShowCell(slot, app::COL_PROGRESS);
    return true;
}

void DownloadWorker::DropJob(int slot) {
    std::lock_guard handOver(handOverLock_);
    inJob_ = false;
    dropped_ = true;
    station_.slots.jobRunning[static_cast<std::size_t>(slot)].store(false);
}

template <class Restore>
void DownloadWorker::JobEnd(Restore restore) {
    std::lock_guard handOver(handOverLock_);
    restore();
    inJob_ = false;
    if (const int slot = ThreadIndex(); slot >= 0 && slot < app::kSlotCount)
        station_.slots.jobRunning[static_cast<std::size_t>(slot)].store(false);
}

void DownloadWorker::RestoreMtkBinding(int slot) {
    auto& b = station_.bindings;
    if (b.LsLocation(slot) == app::kUnbound) b.SetState(slot, app::BindState::PreloaderBinded);
    if (b.HsLocation(slot) == app::kUnbound) {
        b.SetState(slot, app::BindState::Idle);
        b.SetLsLocation(slot, app::kUnbound);
    }
    if (b.LsLocation(slot) != app::kUnbound && b.HsLocation(slot) != app::kUnbound)
        b.SetState(slot, app::BindState::AllBinded);
}

void DownloadWorker::ShowBindState(int slot) {
    station_.slotList.EditRow(slot, [&](app::SlotRow& r) {
        r.cells[app::COL_BINDED].text = app::BindStateName(station_.bindings.State(slot));
        r.cells[app::COL_BINDED].colour = kColourBlue;
    });
}

void DownloadWorker::SprdJob(bool& firstPhase) {
    const int slot = ThreadIndex();
    if (!JobStart(slot, WorkerEvents::SPRD)) return;
    const int port = ExtractComNumber(Device().friendlyName);
    if (port == -1) {
        DropJob(slot);
        return;
    }
    const auto params = station_.sprdParams.Get();
    sprd_->SetSPRDParameters(params->SelectedFileCount, static_cast<unsigned long>(port), params->ProductName,
                             params->files, params->ConfigFilePath);
    const auto n = static_cast<unsigned long>(port);
    if (firstPhase) {
        sprdStartedAt_ = station_.slots.startTime[static_cast<std::size_t>(slot)].load();
        sprd_->StartWork();
        sprd_->StartOnePortWork(n, 0);
        bool switched = false, failed = false;
        for (int polls = 1;; ++polls) {
            const SlotStage stage = display_.Stage();
            if (!events_.Pause(kSwitchPollMs)) break;
            if (stage == SlotStage::SWITCHING) {
                switched = true;
                break;
            }
            if (stage == SlotStage::FAIL || polls == kSwitchPolls) {
                failed = true;
                break;
            }
        }
        sprd_->StopOnePortWork(n, 1);
        // The last reading is half a second old: an engine that switched the phone since,
        // before it was stopped, sends it to its download port all the same. Counted
        // failed here, it would be served there as a new phone and counted again.
        if (failed && display_.Stage() == SlotStage::SWITCHING) {
            failed = false;
            switched = true;
        }
        firstPhase = !switched;
        sprdPhase1Device_ = display_.Outcome().device;
        if (failed) {
            window_.KillTimer(slot);
            FinishJob(slot, "SPRD", sprdStartedAt_, true, app::texts::kReasonNoSwitch);
        }
        // From here on the phone's return on its download port is a new hand-over.
        JobEnd([&] { station_.bindings.SetState(slot, app::BindState::AllBinded); });
        return;
    }
    display_.SetSprdPhase(1);
    // One job over both phases: what the first phase learnt of the phone stays.
    display_.ShowIdentity(sprdPhase1Device_);
    sprd_->StartOnePortWork(n, 0);
    firstPhase = true;
    bool failed = false;
    for (;;) {
        const SlotStage stage = display_.Stage();
        if (!events_.Pause(kDownloadPollMs)) {
            failed = true;
            break;
        }
        if (stage == SlotStage::PASS) break;
        if (stage == SlotStage::FAIL || station_.bindings.State(slot) != app::BindState::Busy) {
            failed = true;
            break;
        }
    }
    display_.SetSprdPhase(0);
    sprd_->StopOnePortWork(n, 1);
    JobEnd([&] {
        if (station_.bindings.HsLocation(slot) != app::kUnbound)
            station_.bindings.SetState(slot, app::BindState::AllBinded);
    });
    ShowBindState(slot);
    window_.KillTimer(slot);
    FinishJob(slot, "SPRD", sprdStartedAt_, failed, app::texts::kReasonNoVerdict);
}

void DownloadWorker::MtkJob() {
    const int slot = ThreadIndex();
    const auto& s = station_.settings;
    mtk_->SetDLPara(
        slot, static_cast<int>(s.CheckVersion), static_cast<int>(s.BromLog), static_cast<int>(s.FlashCheckSum),
        static_cast<int>(s.ForceWatchdogReset), static_cast<int>(s.EnableAutoPulling), static_cast<int>(s.Battery), 0,
        "", s.MTK_BK_NVRAM_FILENAME.c_str(), s.MTK_BK_PROINFO_FILENAME.c_str(), static_cast<int>(s.MTK_UPGRADE_BK_NV),
        static_cast<int>(s.CleanBinRegionData), static_cast<int>(s.NVDATAZIP));
    const auto& m = s.memoryTest;
    mtk_->SetMemoryTestPara(static_cast<int>(m.DataBus), static_cast<int>(m.AddrBus), static_cast<int>(m.PatternTest),
                            static_cast<int>(m.IncDecTest), static_cast<int>(m.PatternNum));
    const auto prep = station_.mtkPrep.Get();
    if (prep->EfuseEnabled)
        mtk_->SetEfusePara(prep->EfuseEnabled, prep->EfuseXmlPath.c_str(), 0, "", prep->DaBrPath.c_str(),
                           prep->DaPlPath.c_str());
    if (station_.bindings.State(slot) != app::BindState::AllBinded) mtk_->SetDAPort(slot);
    mtk_->SetDownloadType(station_.package.downloadType);
    app::DeviceInfo device = Device();
    mtk_->SetDeviceInfo(&device);
    if (!JobStart(slot, WorkerEvents::MTK)) return;
    if (CutShort()) mtk_->CancelTask();  // the cancel came while the engine was set up
    const int r = mtk_->DLOperationStart();
    if (r == 0 && s.ForceWatchdogReset == 1 && s.EnableAutoPulling == 0) {
        window_.Send(app::SlotStatus{slot, station_.language.ChooseText(app::texts::kPhoneRestarting)});
        // The pauses end at once when the program ends.
        events_.Pause(s.SleepTimeRestart);
        window_.Send(app::SlotStatus{slot, station_.language.ChooseText(app::texts::kPhoneRestarted)});
        events_.Pause(1000);
    }
    // The rules apply in turn: a slot with neither location bound ends IDLE. The DA
    // form of this phone, handed over during the job or arriving later, is not served
    // again (HandOver::DA_MODE).
    JobEnd([&] { RestoreMtkBinding(slot); });
    ShowBindState(slot);
    window_.KillTimer(slot);
    FinishJob(slot, "MTK", station_.slots.startTime[static_cast<std::size_t>(slot)].load(), r != 0);
}

void DownloadWorker::FpJob() {
    const int slot = ThreadIndex();
    fp_->SetDownloadType_FP(station_.package.cfgBackupRestore ? 2 : 3);
    app::DeviceInfo device = Device();
    fp_->SetDeviceInfo(&device);
    fp_->SetDLPara(slot);
    if (!JobStart(slot, WorkerEvents::FP)) return;
    if (CutShort()) fp_->CancelTask();
    const int r = fp_->MTKFP_OperationStart();
    JobEnd([] {});  // the slot stays BUSY until the console's Stop
    ShowBindState(slot);
    window_.KillTimer(slot);
    FinishJob(slot, "CFG", station_.slots.startTime[static_cast<std::size_t>(slot)].load(), r != 0);
    station_.slots.fpJob[static_cast<std::size_t>(slot)].store(app::FpJobState::Finished);
    bool anyRunning = false;
    for (const auto& state : station_.slots.fpJob) anyRunning = anyRunning || state.load() == app::FpJobState::Running;
    if (!anyRunning && station_.stationRunning.load() && events_.Pause(1000))
        window_.Send(app::Command{app::CommandId::START_STOP, true});
}

// ---- worker 0: package-wide operations ----

void DownloadWorker::SetChecksumWindow(std::shared_ptr<app::MessageWindow> window) {
    checksumWindow_ = std::move(window);
}

int DownloadWorker::PreLoadPackage() {
    const auto& pkg = station_.package;
    if (pkg.kind == app::PackageKind::MtkScatter) {
        const auto prep = station_.mtkPrep.Get();
        app::SpmtkEfuseInfo efuse{prep->EfuseEnabled,     prep->DaVariant,       0, 0,
                                  prep->DaBrPath.c_str(), prep->DaPlPath.c_str()};
        std::string path = pkg.scatterFilePath;
        const int r = mtk_->PreLoadFiles(path.data(), true, static_cast<int>(station_.settings.FlashCheckSum),
                                         pkg.downloadType, efuse, pkg.reserveUserData);
        if (r != 0) return kPreLoadRefused;
    } else if (pkg.kind == app::PackageKind::SprdPac || pkg.kind == app::PackageKind::MtkCfg) {
        fp_->PreLoadFiles_FP(pkg.cfgFilePath.c_str());
    }
    return 0;
}

void DownloadWorker::PackageVersionText(app::PackageKind kind, std::string& text) {
    if (kind == app::PackageKind::MtkScatter) {
        char buffer[260] = {};
        mtk_->GetPCLoadVersion(buffer);
        const std::string version(buffer, strnlen(buffer, sizeof buffer));
        text = version.rfind("CY", 0) == 0 && version.size() >= 3 ? version.substr(3) : std::string();
    } else if (kind != app::PackageKind::MtkCfg) {
        text.clear();  // a CFG package keeps the text it was given
    }
}

void DownloadWorker::FillVersionInfo(app::VersionInfo* info) {
    mtk_->GetVersionInfo(info);
}

void DownloadWorker::VerifyPackage() {
    auto window = checksumWindow_;
    mtk_->SetChkSumWnd(window.get());
    app::VersionInfo version{};
    mtk_->GetVersionInfo(&version);
    const std::string folder = std::filesystem::path(station_.package.scatterFilePath).parent_path().string();
    const int r = mtk_->VerifyHostBufferBeforeStart((folder + "/CheckSum.ini").c_str());
    if (!window) return;
    window->Send(app::ChecksumResult{r != 0});
    window->Send(app::CloseWindow{});
}

}  // namespace quorvel::engine
