#include "qt/QtConsoleUi.h"

#include <QMessageBox>
#include <QThread>

#include <memory>

#include "qt/dialogs/AboutDialog.h"
#include "qt/dialogs/PreparationDialog.h"
#include "qt/dialogs/SettingsDialog.h"
#include "station/Messages.h"

namespace quorvel::console {

QtConsoleUi::QtConsoleUi(QObject* guiObject) : guiObject_(guiObject) {}

// A queued call and a wait that CloseGui can end, where a blocking queued call would
// wait for an event loop that no longer runs.
template <class F>
void QtConsoleUi::OnGuiThread(F f, Waiting waiting) {
    if (QThread::currentThread() == guiObject_->thread()) {
        f();
        return;
    }
    auto done = std::make_shared<bool>(false);
    {
        std::lock_guard g(mutex_);
        if (closed_) return;
    }
    QMetaObject::invokeMethod(
        &calls_,
        [this, done, &f] {
            {
                std::lock_guard g(mutex_);
                if (closed_) return;  // the caller has gone on; its `f` may be gone too
            }
            f();
            {
                std::lock_guard g(mutex_);
                *done = true;
            }
            Wake();
        },
        Qt::QueuedConnection);
    auto answered = [&] {
        std::lock_guard g(mutex_);
        return *done || closed_;
    };
    if (loop_ && loop_->IsStationThread()) {
        // Held still for a dialog, the station thread still keeps the status-bar clock going.
        waiting == PUMPING ? loop_->PumpUntil(answered) : loop_->PumpTimerUntil(app::TIMER_CLOCK, answered);
        return;
    }
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [&] { return *done || closed_; });
}

void QtConsoleUi::Wake() {
    finished_.notify_all();
    if (loop_) loop_->Wake();
}

void QtConsoleUi::CloseGui() {
    {
        std::lock_guard g(mutex_);
        closed_ = true;
    }
    Wake();
}

// A message box touches nothing of the station's, so the station thread may go on
// meanwhile. The dialogs' logic changes the package and the language on the GUI thread
// and needs the station thread held still, as it is when a dialog can be opened: stopped.
void QtConsoleUi::MessageBox(const std::string& text) {
    OnGuiThread(
        [&] {
            if (!shownTexts_.insert(text).second) return;
            QMessageBox box(QMessageBox::NoIcon, QStringLiteral("Quorvel"), QString::fromUtf8(text.c_str()),
                            QMessageBox::Ok, parent_);
            box.exec();
            shownTexts_.erase(text);
        },
        PUMPING);
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
