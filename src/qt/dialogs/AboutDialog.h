#pragma once
// The about dialog's window over AboutDialogLogic. GUI thread only.

#include <QDialog>

#include "present/AboutDialogLogic.h"

class QRadioButton;

namespace quorvel::dialogs {

class AboutDialog : public QDialog {
    Q_OBJECT
public:
    AboutDialog(app::AboutDialogLogic& logic, QWidget* parent);
    void accept() override;

private:
    app::AboutDialogLogic& logic_;
    QRadioButton* chinese_;
    QRadioButton* english_;
    QRadioButton* auto_;
};

}  // namespace quorvel::dialogs
