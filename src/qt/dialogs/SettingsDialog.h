#pragma once
// The settings dialog's window over SettingsDialogLogic. GUI thread only.

#include <QDialog>

#include "present/SettingsDialogLogic.h"

class QComboBox;
class QFileDialog;
class QLineEdit;

namespace quorvel::dialogs {

class SettingsDialog : public QDialog {
    Q_OBJECT
public:
    SettingsDialog(app::SettingsDialogLogic& logic, QWidget* parent);

    void accept() override;
    void reject() override;

    // The open-file dialog of Load, with the station's filters; the caller owns it.
    static QFileDialog* MakeFileDialog(QWidget* parent, const QString& caption, const QString& folder);

private:
    void ShowList();
    void LoadClicked();

    app::SettingsDialogLogic& logic_;
    QLineEdit* path_;
    QComboBox* operations_;
};

}  // namespace quorvel::dialogs
