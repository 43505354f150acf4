#include "console/ConsoleController.h"
#include "console/MessageRouter.h"
#include "console/StationRun.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "present/AboutDialogLogic.h"
#include "present/SettingsDialogLogic.h"
#include "present/SlotListLayout.h"
#include "station/Messages.h"
#include "station/Texts.h"

#ifndef QUORVEL_BUILD_ID
#define QUORVEL_BUILD_ID "unknown build"
#endif

namespace quorvel::console {

using namespace app;

ConsoleController::ConsoleController(Station& station, app::StationLoop& loop, ConsoleUi& ui, int listClientWidth)
    : station_(station), loop_(loop), ui_(ui), listClientWidth_(listClientWidth) {}

std::array<std::string, 3> ConsoleController::TitleParts() {
    char version[64], compiler[256], date[64];
    std::snprintf(version, sizeof version, texts::kTitleVersionFormat, texts::kTitleVersion);
    std::snprintf(compiler, sizeof compiler, texts::kTitleCompilerFormat, QUORVEL_BUILD_ID);
    std::snprintf(date, sizeof date, texts::kTitleDateFormat, texts::kTitleDate);
    return {version, compiler, date};
}

std::string ConsoleController::WindowTitle() const {
    const auto [version, compiler, date] = TitleParts();
    std::string title = version + compiler + "; " + date;
    if (station_.settings.simulatedBench) title += texts::kSimulationTitleSuffix;
    return title;
}

std::string ConsoleController::BackgroundImage(bool applyUserdataRow) const {
    const bool userdata = applyUserdataRow && station_.package.downloadType == 8;
    const LangText name = userdata ? LangText{"res/BRINDLE_USERDATA.bmp", "res/BRINDLE_USERDATA_E.bmp"}
                                   : LangText{"res/BRINDLE.bmp", "res/BRINDLE_E.bmp"};
    return station_.ExeDir() + station_.language.ChooseText(name);
}

void ConsoleController::SetUpControls() {
    const Language& lang = station_.language;
    ConsoleView& view = station_.view;
    view.SetText(IDC_OPERATION_AREA, lang.ChooseText(texts::kOperationArea));
    view.SetText(IDC_TOTAL_LABEL, lang.ChooseText(texts::kTotalLabel));
    view.SetText(IDC_FAILURE_LABEL, lang.ChooseText(texts::kFailureLabel));
    view.SetText(IDC_PASS_RATE_LABEL, lang.ChooseText(texts::kPassRateLabel));
    view.SetIcons(IDC_START_STOP, 161, 162);
    view.SetToolTip(IDC_START_STOP, lang.ChooseText(texts::kStartTip));
    view.SetIcons(IDC_SETTINGS, 166, 167);
    view.SetToolTip(IDC_SETTINGS, lang.ChooseText(texts::kSettingsTip));
    view.SetIcons(IDC_HELP, 168, 169);
    view.SetToolTip(IDC_HELP, lang.ChooseText(texts::kHelpTip));

    const ColumnWidths widths = InitialColumnWidths(listClientWidth_);
    const SlotColumnHeader::Align aligns[kSlotColumnCount] = {SlotColumnHeader::LEFT,   SlotColumnHeader::LEFT,
                                                              SlotColumnHeader::CENTRE, SlotColumnHeader::CENTRE,
                                                              SlotColumnHeader::CENTRE, SlotColumnHeader::LEFT};
    std::vector<SlotColumnHeader> columns;
    columns.reserve(kSlotColumnCount);
    for (int c = 0; c < kSlotColumnCount; ++c)
        columns.push_back({lang.ChooseText(texts::kSlotColumns[c]), aligns[c], widths[static_cast<std::size_t>(c)]});
    station_.slotList.SetColumns(std::move(columns));
}

bool ConsoleController::SettingsUnreadable() {
    if (const std::string missing = station_.settingsStore.MissingFileProblem(); !missing.empty())
        ui_.MessageBox(missing);
    ui_.MessageBox(station_.language.ChooseText(texts::kConfigReadFailed));
    station_.view.RequestClose(false);
    return false;
}

bool ConsoleController::OnInitDialog() {
    if (!station_.settingsStore.LanguageLoad()) return SettingsUnreadable();
    station_.view.SetBackgroundImage(BackgroundImage(false));
    SetUpControls();
    loop_.SetTimer(TIMER_CLOCK, 1000);
    ShowClock();
    ShowDownloadTypeName();
    buttonStatus_ = DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_INIT;
    if (!station_.settingsStore.SettingsLoad()) return SettingsUnreadable();
    station_.view.SetBenchView(station_.settingsStore.BenchViewLoad());
    if (run_) run_->BuildSlots();
    ShowPackage(true);
    SetButtonStatus(DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_START);
    station_.view.SetTitle(WindowTitle());
    if (run_) run_->StartReporting();
    return true;
}

void ConsoleController::SetBenchView(bool on) {
    station_.view.SetBenchView(on);
    station_.settingsStore.BenchViewSave(on);
}

void ConsoleController::SetButtonStatus(DownloadButtonStatus n) {
    const Language& lang = station_.language;
    ConsoleView& view = station_.view;
    const bool stop = n == DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP;
    view.SetToolTip(IDC_START_STOP, lang.ChooseText(stop ? texts::kStopTip : texts::kStartTip));
    view.SetIcons(IDC_START_STOP, stop ? 165 : 161, stop ? 164 : 162);
    view.SetEnabled(IDC_SETTINGS, !stop);
    view.SetEnabled(IDC_HELP, !stop);
}

void ConsoleController::SettingsClick() {
    SettingsDialogLogic dialog(station_, [this](const std::string& text) { Tell(text); });
    if (!ui_.RunSettingsDialog(dialog)) return;
    if (station_.package.kind == PackageKind::MtkScatter) {
        PrepareMtk(false);
        ShowDownloadTypeName();
    }
    station_.view.SetBackgroundImage(BackgroundImage(true));
    packages::MtkPreparation::RefreshPackageDisplay(station_, *this);
}

void ConsoleController::ShowPackage(bool startup) {
    const PackageSelection& pkg = station_.package;
    if (pkg.kind == PackageKind::None) return;
    // Engines find a package's relative files from the current folder; a folder that is
    // gone is reported by the package checks that follow, not here.
    if (const std::string& folder = pkg.ActiveFolder(); !folder.empty() && ::chdir(folder.c_str()) != 0) {
    }
    if (pkg.kind == PackageKind::MtkScatter) PrepareMtk(startup);
    packages::MtkPreparation::RefreshPackageDisplay(station_, *this);
}

void ConsoleController::PrepareMtk(bool startup) {
    packages::MtkPreparation prep(station_);
    Tell(prep.Prepare(startup));
    prep.Publish();
}

void ConsoleController::SetBannerFont(const packages::DisplayFont& font) {
    station_.view.SetFont(IDC_PATH_BANNER, font.face, font.height, font.weight);
}

void ConsoleController::SetPanelFont(const packages::DisplayFont& font) {
    station_.view.SetFont(IDC_PANEL, font.face, font.height, font.weight);
}

int ConsoleController::PreLoadPackage() {
    if (!run_) return 1;
    const int r = run_->Manager().PreLoadPackage();
    if (r == engine::kPreLoadRefused) ui_.MessageBox(texts::kPreLoadFilesFailed);
    return r;
}

std::string ConsoleController::PackageVersionText() {
    std::string text;
    if (run_) run_->Manager().PackageVersionText(station_.package.kind, text);
    return text;
}

void ConsoleController::HelpClick() {
    const auto [version, compiler, date] = TitleParts();
    const EngineVersions versions = run_ ? run_->Manager().EngineVersionTexts() : EngineVersions{};
    AboutDialogLogic dialog(station_, versions, version, compiler, date);
    ui_.RunAboutDialog(dialog);
    station_.settingsStore.LanguageSave();
    if (station_.restartRequired) {
        ui_.MessageBox(texts::kRebootTool);
        station_.view.RequestClose(true);
    }
}

void ConsoleController::ShowDownloadTypeName() {
    station_.view.SetPane(3, station_.language.ChooseText(DownloadTypeName(station_.package.downloadType)));
}

void ConsoleController::ShowClock() {
    std::time_t t = static_cast<std::time_t>(station_.clock.WallSeconds());
    std::tm local{};
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    station_.view.SetPane(1, text);
}

platform::LResult ConsoleController::HandleMessage(const Message& message) {
    if (platform::LResult routed = 0; router_ && router_->Route(message, routed)) return routed;
    if (const auto* event = std::get_if<DeviceEvent>(&message)) return run_ ? run_->OnDeviceEvent(*event) : 0;
    if (const auto* command = std::get_if<Command>(&message)) OnCommand(*command);
    return 0;
}

void ConsoleController::OnCommand(const Command& command) {
    switch (command.id) {
        case CommandId::START_STOP:
            if (command.autoStop && buttonStatus_ != DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_STOP) return;
            if (run_) run_->StartStopClick();
            return;
        case CommandId::REMOVE_STATISTICS: station_.statistics.StatisticsReset(); return;
        // The menu greys these out while the station runs; a command queued before Start is void.
        case CommandId::REMOVE_BIND:
            if (!station_.stationRunning) bindingCommands_.RemoveTheBind(selectedRow_);
            return;
        case CommandId::REMOVE_ALL_BIND:
            if (!station_.stationRunning) bindingCommands_.RemoveAllBind();
            return;
        case CommandId::MERGE_REPEAT_BIND:
            if (!station_.stationRunning) bindingCommands_.MergeRepeatBind();
            return;
        // Both buttons are disabled while the station runs; a click queued before that is void.
        case CommandId::SETTINGS:
            if (!station_.stationRunning) SettingsClick();
            return;
        case CommandId::HELP:
            if (!station_.stationRunning) HelpClick();
            return;
    }
}

void ConsoleController::OnTimer(int id) {
    if (id == TIMER_CLOCK) {
        ShowClock();
        station_.statistics.Retry();  // counts and history a full disk held back
    }
    if (router_) router_->RouteTimer(id);
}

}  // namespace quorvel::console
