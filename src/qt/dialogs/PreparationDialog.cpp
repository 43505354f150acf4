#include "qt/dialogs/PreparationDialog.h"

#include <QApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QPointer>
#include <QProgressBar>
#include <QVBoxLayout>

namespace quorvel::dialogs {

PreparationDialog::PreparationDialog(packages::PreparationWindowLogic& logic, QWidget* parent)
    : QDialog(parent), logic_(logic) {
    setStyleSheet("QDialog { background: rgb(247, 255, 252); }");
    setMinimumWidth(480);
    bar_ = new QProgressBar(this);
    bar_->setRange(0, 100);
    bar_->setTextVisible(true);
    bar_->setAlignment(Qt::AlignCenter);
    status_ = new QLabel(this);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(bar_);
    layout->addWidget(status_);
}

void PreparationDialog::Run() {
    // The work reports from its own threads; the redraw always happens here, and only
    // while this window still exists.
    QPointer<PreparationDialog> self(this);
    logic_.SetObserver([self] {
        QMetaObject::invokeMethod(qApp, [self] {
            if (self) self->Refresh();
        });
    });
    // Without work started the window waits for the operator to close it.
    logic_.Open();
    Refresh();
    if (!logic_.View().closed) exec();
    logic_.SetObserver({});
}

void PreparationDialog::Refresh() {
    const packages::PreparationView v = logic_.View();
    setWindowTitle(QString::fromUtf8(v.title.c_str()));
    bar_->setValue(v.barPosition);
    bar_->setFormat(QString::fromUtf8(v.barText.c_str()).replace('%', "%%"));
    status_->setText(QString::fromUtf8(v.status.c_str()));
    if (v.closed && isVisible()) accept();
}

void PreparationDialog::keyPressEvent(QKeyEvent* event) {
    // Enter ends the window as Escape does; the work goes on in the background.
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        reject();
        return;
    }
    QDialog::keyPressEvent(event);
}

void PreparationDialog::reject() {
    logic_.Close();
    QDialog::reject();
}

}  // namespace quorvel::dialogs
