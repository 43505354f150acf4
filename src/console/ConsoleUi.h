#pragma once
// Modal interactions with the operator. Callers on any thread block until the
// operator has answered, as a modal dialog would. The Qt window implements it;
// HeadlessConsoleUi serves tests and tools. Only the console layer asks: the layers
// below return their messages or hand them to a TellOperator the console gave.

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "present/PreparationDialog.h"
#include "station/TellOperator.h"

namespace quorvel::app {

class AboutDialogLogic;
class SettingsDialogLogic;

class ConsoleUi {
public:
    virtual ~ConsoleUi() = default;
    // A message box with an OK button.
    virtual void MessageBox(const std::string& text) = 0;
    // MessageBox for the work of lower layers; this object must outlive it.
    TellOperator Teller() {
        return [this](const std::string& text) { MessageBox(text); };
    }
    // The settings dialog, modal; true when it closed with OK.
    virtual bool RunSettingsDialog(SettingsDialogLogic& dialog) = 0;
    // The about dialog, modal.
    virtual void RunAboutDialog(AboutDialogLogic& dialog) = 0;
    // The package preparation window, modal: returns when it has closed. Without a
    // screen: opened, and closed at once by the operator when no work was started.
    virtual void RunPreparationDialog(PreparationDialog& dialog);
};

// Records every message box and answers dialogs from a script: each queued
// answer plays the operator for one showing; with none queued a dialog is cancelled.
class HeadlessConsoleUi : public ConsoleUi {
public:
    void MessageBox(const std::string& text) override;
    bool RunSettingsDialog(SettingsDialogLogic& dialog) override;
    void RunAboutDialog(AboutDialogLogic& dialog) override;

    void QueueSettingsAnswer(std::function<bool(SettingsDialogLogic&)> answer);
    void QueueAboutAnswer(std::function<void(AboutDialogLogic&)> answer);

    std::vector<std::string> Messages() const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> messages_;
    std::deque<std::function<bool(SettingsDialogLogic&)>> settingsAnswers_;
    std::deque<std::function<void(AboutDialogLogic&)>> aboutAnswers_;
};

}  // namespace quorvel::app
