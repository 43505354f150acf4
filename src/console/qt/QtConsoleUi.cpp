#include "console/qt/QtConsoleUi.h"

#include <QMessageBox>
#include <QThread>

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

}  // namespace quorvel::console
