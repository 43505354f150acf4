#pragma once
// ConsoleUi on Qt: message boxes raised on any thread are shown by the GUI thread,
// and the caller waits for the operator as a modal dialog would make it.

#include <QObject>
#include <QPointer>
#include <QWidget>

#include "app/ConsoleUi.h"

namespace quorvel::console {

class QtConsoleUi : public app::ConsoleUi {
public:
    // `guiObject` lives on the GUI thread (the application object).
    explicit QtConsoleUi(QObject* guiObject) : guiObject_(guiObject) {}
    void SetParentWindow(QWidget* window) { parent_ = window; }

    void MessageBox(const std::string& text) override;
    bool RunSettingsDialog(app::SettingsDialogLogic& dialog) override;
    void RunAboutDialog(app::AboutDialogLogic& dialog) override;
    void RunPreparationDialog(app::PreparationDialog& dialog) override;

private:
    template <class F>
    void OnGuiThread(F f);

    QObject* guiObject_;
    QPointer<QWidget> parent_;
};

}  // namespace quorvel::console
