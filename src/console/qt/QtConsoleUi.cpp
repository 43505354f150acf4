#include "console/qt/QtConsoleUi.h"

#include <QMessageBox>
#include <QThread>

#include "dialogs/AboutDialog.h"
#include "dialogs/PreparationDialog.h"
#include "dialogs/SettingsDialog.h"

namespace quorvel::console {

template <class F>
void QtConsoleUi::OnGuiThread(F f) {
    if (QThread::currentThread() == guiObject_->thread())
        f();
    else
        QMetaObject::invokeMethod(guiObject_, f, Qt::BlockingQueuedConnection);
}

void QtConsoleUi::MessageBox(const std::string& text) {
    OnGuiThread([&] {
        QMessageBox box(QMessageBox::NoIcon, QStringLiteral("Quorvel"), QString::fromUtf8(text.c_str()),
                        QMessageBox::Ok, parent_);
        box.exec();
    });
}

bool QtConsoleUi::RunSettingsDialog(app::SettingsDialogLogic& dialog) {
    bool ok = false;
    OnGuiThread([&] {
        dialogs::SettingsDialog window(dialog, parent_);
        ok = window.exec() == QDialog::Accepted;
    });
    return ok;
}

void QtConsoleUi::RunAboutDialog(app::AboutDialogLogic& dialog) {
    OnGuiThread([&] {
        dialogs::AboutDialog window(dialog, parent_);
        window.exec();
    });
}

void QtConsoleUi::RunPreparationDialog(app::PreparationDialog& dialog) {
    auto* logic = dynamic_cast<packages::PreparationWindowLogic*>(&dialog);
    if (!logic) {
        ConsoleUi::RunPreparationDialog(dialog);
        return;
    }
    OnGuiThread([&] {
        dialogs::PreparationDialog window(*logic, parent_);
        window.Run();
    });
}

}  // namespace quorvel::console
