#pragma once
// The console's logic, Qt-free, on the station thread: initialisation, the button
// states, the status panes, the clock timer and the routing of window messages.
// The Qt window only draws the view models and forwards the operator's input here.

#include <array>
#include <string>

#include "console/ConsoleUi.h"
#include "devices/BindingCommands.h"
#include "packages/MtkPreparation.h"
#include "station/Station.h"
#include "station/StationLoop.h"

namespace quorvel::console {
class MessageRouter;
class StationRun;
}  // namespace quorvel::console

namespace quorvel::console {

enum class DownloadButtonStatus {
    DOWNLOAD_BUTTON_STATUS_INIT,
    DOWNLOAD_BUTTON_STATUS_START,
    DOWNLOAD_BUTTON_STATUS_STOP
};

class ConsoleController : public app::MessageHandler, public packages::PackageDisplayConsole {
public:
    // `listClientWidth`: the slot list's client width in pixels at creation. Every modal
    // request of the station goes to `ui`.
    ConsoleController(app::Station& station, app::StationLoop& loop, app::ConsoleUi& ui, int listClientWidth = 900);

    // Station thread. False when the console closed itself (settings missing).
    bool OnInitDialog();

    void SetButtonStatus(DownloadButtonStatus n);
    // Commands of the Settings and Help buttons.
    void SettingsClick();
    void HelpClick();
    void ShowDownloadTypeName();
    DownloadButtonStatus ButtonStatus() const { return buttonStatus_; }
    // The window title: version, build identification and date.
    std::string WindowTitle() const;
    // Its three lines, as the about dialog also shows them.
    static std::array<std::string, 3> TitleParts();
    // The list background image for the current language and DownloadType.
    std::string BackgroundImage(bool applyUserdataRow) const;

    // The row of the last right-click on the slot list (-1: below the rows).
    void SetSelectedRow(int row) { selectedRow_ = row; }
    int SelectedRow() const { return selectedRow_; }
    // The operator's choice between the slot list and the bench tiles, kept for the next start.
    void SetBenchView(bool on);

    platform::LResult HandleMessage(const app::Message& message) override;
    void OnTimer(int id) override;

    // The package display's needs of the console (station thread).
    void SetBannerFont(const packages::DisplayFont& font) override;
    void SetPanelFont(const packages::DisplayFont& font) override;
    int PanelClientHeight() const override { return kPanelClientHeight; }
    int PreLoadPackage() override;
    std::string PackageVersionText() override;
    void Repaint() override {}  // the window redraws after every change of the view model
    void Tell(const std::string& text) override { ui_.MessageBox(text); }
    // Each text as a message box, in order.
    void Tell(const std::vector<std::string>& texts) {
        for (const auto& t : texts) ui_.MessageBox(t);
    }
    app::ConsoleUi& Ui() { return ui_; }

    // Height of the panel that shows the package version, in pixels.
    static constexpr int kPanelClientHeight = 70;
    // The slot-message routing, once the download manager exists; station thread.
    void SetRouter(MessageRouter* router) { router_ = router; }
    // The run logic (Start/Stop, slots, device events); station thread.
    void SetRun(StationRun* run) { run_ = run; }

private:
    friend class StationRun;  // drives buttonStatus_ through the Start/Stop states
    void SetUpControls();
    void OnCommand(const app::Command& command);
    void ShowClock();
    // Makes the package's folder the current one and prepares and shows the package.
    void ShowPackage(bool startup);
    void PrepareMtk(bool startup);
    // A settings file that cannot be read: its messages, and the console closes.
    bool SettingsUnreadable();

    app::Station& station_;
    app::StationLoop& loop_;
    app::ConsoleUi& ui_;
    int listClientWidth_;
    DownloadButtonStatus buttonStatus_ = DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_INIT;
    int selectedRow_ = -1;
    MessageRouter* router_ = nullptr;
    StationRun* run_ = nullptr;
    devices::BindingCommands bindingCommands_{station_};
};

}  // namespace quorvel::console
