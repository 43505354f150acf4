#include "qt/dialogs/SettingsDialog.h"

#include <QComboBox>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <memory>

namespace quorvel::dialogs {

namespace {
QString Q(const std::string& s) {
    return QString::fromUtf8(s.c_str());
}
}  // namespace

SettingsDialog::SettingsDialog(app::SettingsDialogLogic& logic, QWidget* parent) : QDialog(parent), logic_(logic) {
    logic_.Open();
    setWindowTitle(Q(logic_.Title()));
    setStyleSheet("QDialog { background: rgb(247, 255, 252); }");
    setMinimumWidth(520);

    auto* label = new QLabel(Q(logic_.PathLabel()), this);
    path_ = new QLineEdit(Q(logic_.PathText()), this);
    path_->setReadOnly(true);
    auto* load = new QPushButton(Q(logic_.LoadButton()), this);
    connect(load, &QPushButton::clicked, this, &SettingsDialog::LoadClicked);
    operations_ = new QComboBox(this);
    operations_->setMaxVisibleItems(6);
    connect(operations_, &QComboBox::currentIndexChanged, this, [this](int i) { logic_.Select(i); });
    auto* ok = new QPushButton(Q(logic_.OkButton()), this);
    auto* cancel = new QPushButton(Q(logic_.CancelButton()), this);
    ok->setDefault(true);
    connect(ok, &QPushButton::clicked, this, &SettingsDialog::accept);
    connect(cancel, &QPushButton::clicked, this, &SettingsDialog::reject);

    auto* pathRow = new QHBoxLayout;
    pathRow->addWidget(path_, 1);
    pathRow->addWidget(load);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(operations_, 1);
    buttons->addStretch();
    buttons->addWidget(ok);
    buttons->addWidget(cancel);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(label);
    layout->addLayout(pathRow);
    layout->addSpacing(20);
    layout->addLayout(buttons);
    ShowList();
}

void SettingsDialog::ShowList() {
    const QSignalBlocker quiet(operations_);
    operations_->clear();
    for (const auto& e : logic_.Entries()) operations_->addItem(Q(e));
    operations_->setEnabled(logic_.ListEnabled());
    operations_->setCurrentIndex(logic_.Selected());
}

QFileDialog* SettingsDialog::MakeFileDialog(QWidget* parent, const QString& caption, const QString& folder) {
    auto* dialog = new QFileDialog(parent, caption, folder);
    dialog->setFileMode(QFileDialog::ExistingFile);
    // Qt's own dialog shows a name with parentheses of its own as it stands, and with
    // the details hidden the patterns stay apart from it.
    dialog->setOptions(QFileDialog::HideNameFilterDetails | QFileDialog::DontUseNativeDialog);
    QStringList filters;
    for (const auto& filter : app::SettingsDialogLogic::FileFilters()) {
        QStringList patterns;
        for (const auto& pattern : filter.patterns) patterns << Q(pattern);
        filters << Q(filter.name) + " (" + patterns.join(' ') + ")";
    }
    dialog->setNameFilters(filters);
    return dialog;
}

void SettingsDialog::LoadClicked() {
    std::unique_ptr<QFileDialog> dialog(MakeFileDialog(this, Q(logic_.Title()), path_->text()));
    const QString file = dialog->exec() == QDialog::Accepted && !dialog->selectedFiles().isEmpty()
                             ? dialog->selectedFiles().first()
                             : QString();
    logic_.Load(file.isEmpty() ? std::nullopt : std::optional<std::string>(file.toStdString()));
    path_->setText(Q(logic_.PathText()));
    ShowList();
}

void SettingsDialog::accept() {
    if (logic_.Ok()) QDialog::accept();
}

void SettingsDialog::reject() {
    logic_.Cancel();
    QDialog::reject();
}

}  // namespace quorvel::dialogs
