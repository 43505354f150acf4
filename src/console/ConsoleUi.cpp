#include "console/ConsoleUi.h"

#include "present/AboutDialogLogic.h"
#include "present/SettingsDialogLogic.h"

namespace quorvel::app {

void ConsoleUi::RunPreparationDialog(PreparationDialog& dialog) {
    if (!dialog.Open()) {
        dialog.Close();
        return;
    }
    dialog.WaitClosed();
}

void HeadlessConsoleUi::MessageBox(const std::string& text) {
    std::lock_guard g(mutex_);
    messages_.push_back(text);
}

bool HeadlessConsoleUi::RunSettingsDialog(SettingsDialogLogic& dialog) {
    std::function<bool(SettingsDialogLogic&)> answer;
    {
        std::lock_guard g(mutex_);
        if (!settingsAnswers_.empty()) {
            answer = std::move(settingsAnswers_.front());
            settingsAnswers_.pop_front();
        }
    }
    dialog.Open();
    if (answer) return answer(dialog);
    dialog.Cancel();
    return false;
}

void HeadlessConsoleUi::RunAboutDialog(AboutDialogLogic& dialog) {
    std::function<void(AboutDialogLogic&)> answer;
    {
        std::lock_guard g(mutex_);
        if (!aboutAnswers_.empty()) {
            answer = std::move(aboutAnswers_.front());
            aboutAnswers_.pop_front();
        }
    }
    if (answer) answer(dialog);
}

void HeadlessConsoleUi::QueueSettingsAnswer(std::function<bool(SettingsDialogLogic&)> answer) {
    std::lock_guard g(mutex_);
    settingsAnswers_.push_back(std::move(answer));
}

void HeadlessConsoleUi::QueueAboutAnswer(std::function<void(AboutDialogLogic&)> answer) {
    std::lock_guard g(mutex_);
    aboutAnswers_.push_back(std::move(answer));
}

std::vector<std::string> HeadlessConsoleUi::Messages() const {
    std::lock_guard g(mutex_);
    return messages_;
}

void HeadlessConsoleUi::Clear() {
    std::lock_guard g(mutex_);
    messages_.clear();
}

}  // namespace quorvel::app
