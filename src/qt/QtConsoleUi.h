#pragma once
// ConsoleUi on Qt: message boxes raised on any thread are shown by the GUI thread,
// and the caller waits for the operator as a modal dialog would make it.
// Threads: any thread may call the dialogs; `CloseGui` is called on the GUI thread once
// its event loop has ended, and releases every caller still waiting with the answer
// "cancelled", so the station thread never hangs on a window that is gone. While the
// station thread waits for a message box it goes on handling its messages and timers, as
// a modal loop would: workers reporting to it never stall behind an operator's answer.

#include <QObject>
#include <QPointer>
#include <QWidget>

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

#include "console/ConsoleUi.h"
#include "station/StationLoop.h"

namespace quorvel::console {

class QtConsoleUi : public app::ConsoleUi {
public:
    // `guiObject` lives on the GUI thread (the application object).
    // Made on the GUI thread.
    explicit QtConsoleUi(QObject* guiObject);
    void SetParentWindow(QWidget* window) { parent_ = window; }
    void SetStationLoop(app::StationLoop* loop) { loop_ = loop; }

    void MessageBox(const std::string& text) override;
    bool RunSettingsDialog(app::SettingsDialogLogic& dialog) override;
    void RunAboutDialog(app::AboutDialogLogic& dialog) override;
    void RunPreparationDialog(app::PreparationDialog& dialog) override;

    void CloseGui();

private:
    // PUMPING: the station thread handles its messages while it waits; HOLDING: it waits
    // still but for the clock timer.
    enum Waiting { PUMPING, HOLDING };
    template <class F>
    void OnGuiThread(F f, Waiting waiting = HOLDING);
    void Wake();

    QObject* guiObject_;
    QObject calls_;  // context of the queued calls: those still queued die with it
    QPointer<QWidget> parent_;
    app::StationLoop* loop_ = nullptr;
    std::mutex mutex_;
    std::condition_variable finished_;
    bool closed_ = false;
    // GUI thread only: texts of the message boxes on screen. A box already showing a text
    // is not stacked again: an automatic stop refused while phones keep coming would
    // otherwise pile up boxes faster than the operator can close them.
    std::set<std::string> shownTexts_;
};

}  // namespace quorvel::console
