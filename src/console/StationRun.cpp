#include "console/StationRun.h"

#include <filesystem>
#include <functional>
#include <utility>

#include "console/ConsoleController.h"
#include "console/MessageRouter.h"
#include "present/PreparationWindowLogic.h"
#include "report/ReportSettings.h"
#include "station/Texts.h"

namespace quorvel::console {

using namespace app;

StationRun::StationRun(Station& station, app::StationLoop& loop, ConsoleController& console,
                       devices::DeviceBackend& backend, engine::EngineFactory& engines)
    : station_(station),
      loop_(loop),
      console_(console),
      backend_(backend),
      engines_(engines),
      manager_(station, loop, engines),
      probe_(
          station.clock, [&backend](int com) { return backend.SerialNodeOf(com); },
          [&station](const std::string& text) {
              station.settingsStore.UiLog(text);
              station.view.SetNotice(text);
          }),
      binding_(station, manager_, probe_, loop),
      monitor_(station, backend, loop),
      router_(std::make_unique<MessageRouter>(station, manager_)) {
    console_.SetRouter(router_.get());
    console_.SetRun(this);
}

StationRun::~StationRun() {
    console_.SetRun(nullptr);
    console_.SetRouter(nullptr);
}

StationRun::Reporting::~Reporting() {
    station.history.SetReportObserver({});
    reporter.reset();  // says Offline
}

namespace {

report::PackageReport PackageOf(const PackageSelection& p) {
    const char* platform = "";
    switch (p.kind) {
        case PackageKind::MtkScatter: platform = "MTK"; break;
        case PackageKind::SprdPac: platform = "SPRD"; break;
        case PackageKind::MtkCfg: platform = "CFG"; break;
        case PackageKind::None: break;
    }
    return {platform, p.ActivePath(), p.version};
}

}  // namespace

void StationRun::StartReporting() {
    if (reporting_.reporter) return;
    const report::ReportSettingsRead read =
        report::ReadReportSettings(station_.ConfigPath("CommonSetting.ini"), station_.ExeDir());
    const auto tell = [this](const std::string& text) {
        station_.settingsStore.UiLog(text);
        station_.view.SetNotice(text);
    };
    if (!read.error.empty()) tell(read.error);
    if (!read.settings) return;
    report::Reporter::Options options;
    options.settings = *read.settings;
    options.testLogDir = station_.ExeDir() + "TestLog";
    options.slots = manager_.WorkerCount();
    options.version = texts::kTitleVersion;
    options.counters = [this] { return std::pair(station_.statistics.Total(), station_.statistics.Fail()); };
    options.portOf = [this](int slot) { return station_.bindings.ComName(slot); };
    options.tell = tell;
    options.log = [this](const std::string& text) { station_.settingsStore.UiLog(text); };
    reporting_.reporter = std::make_unique<report::Reporter>(std::move(options), station_.clock);
    report::Reporter* reporter = reporting_.reporter.get();
    for (int slot = 0; slot < manager_.WorkerCount(); ++slot)
        manager_.WorkerAt(slot)->Display().SetStateObserver(
            [reporter, slot](const engine::SlotState& state) { reporter->SlotChanged(slot, state); });
    station_.history.SetReportObserver([reporter](const JobRecord& job) { reporter->JobWritten(job); });
    reporter->PackageChanged(PackageOf(station_.package));
    reporter->StationChanged(report::StationState::Stopped);
}

void StationRun::BuildSlots() {
    manager_.RemoveAllWorkers();
    hubPorts_.clear();
    for (const HubPortEntry& entry : backend_.EnumerateHubPorts()) {
        manager_.AddWorker(entry);
        hubPorts_.push_back(entry);
    }
    for (const DeviceInfo& device : backend_.EnumeratePreloaderDevices()) manager_.AcceptDeviceByHubPort(device);
}

bool StationRun::RunPreparation(bool verify) {
    packages::PreparationWindowLogic::StartVerify start;
    if (verify)
        start = [this](std::shared_ptr<app::MessageWindow> receiver) { manager_.VerifyPackage(std::move(receiver)); };
    packages::PreparationWindowLogic dialog(
        station_, [this](const std::string& text) { console_.Tell(text); }, start);
    console_.Ui().RunPreparationDialog(dialog);
    dialog.WaitForWork();
    return dialog.PreparationResult() != 0;
}

int StationRun::PreStartCheck() {
    namespace fs = std::filesystem;
    PackageSelection& p = station_.package;
    std::error_code ec;
    // An engine program that cannot run refuses Start here, never failing phone by phone.
    if (const std::string problem = engines_.StartProblem(p.kind); !problem.empty()) {
        console_.Tell(problem);
        return 0;
    }
    switch (p.kind) {
        case PackageKind::MtkScatter:
            monitor_.SelectMonitorService();
            if (!fs::exists(p.scatterFilePath, ec)) {
                console_.Tell(station_.language.ChooseText(texts::kSelectScatterFirst));
                return 0;
            }
            if (station_.settings.CheckSum != 0 && !p.verified) {
                manager_.SetState(engine::ManagerState::Unverified);
                if (!RunPreparation(true)) {
                    manager_.SetState(engine::ManagerState::Unverified);
                    return 0;
                }
                manager_.SetState(engine::ManagerState::Ready);
                p.verified = true;
            }
            manager_.SetState(engine::ManagerState::Ready);
            break;
        case PackageKind::SprdPac:
            if (const std::string problem = monitor_.SelectMonitorService(); !problem.empty()) {
                console_.Tell(problem);
                return 0;
            }
            if (!fs::exists(p.pacFilePath, ec)) {
                console_.Tell(station_.language.ChooseText(texts::kSelectPacFirst));
                return 0;
            }
            if (!p.prepared) {
                manager_.SetState(engine::ManagerState::Unverified);
                if (!RunPreparation(false)) {
                    manager_.SetState(engine::ManagerState::Unverified);
                    return 0;
                }
                p.prepared = true;
            }
            manager_.SetState(engine::ManagerState::Ready);
            break;
        case PackageKind::MtkCfg:
            monitor_.SelectMonitorService();
            if (!fs::exists(p.cfgFilePath, ec)) {
                console_.Tell(station_.language.ChooseText(texts::kSelectCfgFirst));
                return 0;
            }
            manager_.SetState(engine::ManagerState::Ready);
            break;
        default: {
            // The run starts, as asked; the operator learns why no phone gets flashed
            // without a box that would hold up the bench.
            const std::string notice = station_.language.ChooseText(texts::kNoPackageNotice);
            station_.view.SetNotice(notice);
            if (station_.settings.EnableDebug) station_.settingsStore.UiLog(notice);
            return 1;
        }
    }
    // A package is chosen now: the notice of a Start without one is no longer true.
    if (station_.view.Notice() == station_.language.ChooseText(texts::kNoPackageNotice)) station_.view.SetNotice("");
    return 1;
}

void StationRun::StartStopClick() {
    if (console_.buttonStatus_ != DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP) {
        console_.ShowDownloadTypeName();
        if (PreStartCheck() == 0) return;
        station_.stationRunning = true;
        station_.clock.Sleep(20);
        monitor_.Start();
        station_.clock.Sleep(20);
        manager_.StartAll();
        if (inhibitor_) inhibitor_->Hold(true);
        if (auto* r = reporting_.reporter.get()) {
            r->PackageChanged(PackageOf(station_.package));
            r->StationChanged(report::StationState::Running);
        }
        console_.buttonStatus_ = DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP;
        console_.SetButtonStatus(DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP);
        return;
    }
    std::function<bool()> releaseCfgSlots;
    if (station_.package.kind == PackageKind::MtkCfg)
        releaseCfgSlots = [this] {
            for (int i = 0; i < kSlotCount; ++i) {
                if (station_.slots.fpJob[i] == app::FpJobState::Running) return false;
                station_.slots.fpJob[i] = app::FpJobState::None;
                station_.bindings.ChangeState(i, BindState::Busy, BindState::AllBinded);
            }
            return true;
        };
    if (!manager_.StopAll(releaseCfgSlots)) {
        console_.Tell(station_.language.ChooseText(texts::kWaitForThreads));
        return;
    }
    station_.stationRunning = false;
    if (inhibitor_) inhibitor_->Hold(false);
    if (auto* r = reporting_.reporter.get()) r->StationChanged(report::StationState::Stopped);
    console_.buttonStatus_ = DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_START;
    console_.SetButtonStatus(DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_START);
    station_.settingsStore.SaveBindings();
}

}  // namespace quorvel::console
