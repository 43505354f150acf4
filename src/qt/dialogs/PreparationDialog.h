#pragma once
// The package preparation window over PreparationWindowLogic: a title, a progress
// bar with its text and a status line. The work's end notice closes it; Escape or
// Enter closes it early.
// GUI thread only.

#include <QDialog>

#include "present/PreparationWindowLogic.h"

class QLabel;
class QProgressBar;

namespace quorvel::dialogs {

class PreparationDialog : public QDialog {
    Q_OBJECT
public:
    PreparationDialog(packages::PreparationWindowLogic& logic, QWidget* parent);

    // Starts the work and shows the window until the work or the operator closes it.
    void Run();
    void reject() override;

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    void Refresh();

    packages::PreparationWindowLogic& logic_;
    QProgressBar* bar_;
    QLabel* status_;
};

}  // namespace quorvel::dialogs
