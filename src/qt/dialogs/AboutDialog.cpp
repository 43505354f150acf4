#include "qt/dialogs/AboutDialog.h"

#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include "qt/widgets/Artwork.h"
#include "station/Texts.h"

namespace quorvel::dialogs {

namespace {
QString Q(const std::string& s) {
    return QString::fromUtf8(s.c_str());
}
}  // namespace

AboutDialog::AboutDialog(app::AboutDialogLogic& logic, QWidget* parent) : QDialog(parent), logic_(logic) {
    setWindowTitle(QStringLiteral("Quorvel"));
    setStyleSheet("QDialog { background: rgb(247, 255, 252); }");
    auto* layout = new QVBoxLayout(this);
    auto* heading = new QHBoxLayout;
    auto* icon = new QLabel(this);
    icon->setObjectName("icon");
    icon->setPixmap(widgets::WindowIcon().pixmap(32, 32));
    heading->addWidget(icon, 0, Qt::AlignTop);
    auto* lines = new QVBoxLayout;
    for (const std::string* line : {&logic_.VersionLine(), &logic_.CompilerLine(), &logic_.DateLine()})
        lines->addWidget(new QLabel(Q(*line), this));
    heading->addLayout(lines, 1);
    layout->addLayout(heading);
    auto* engines = new QListWidget(this);
    for (const auto& line : logic_.EngineLines()) engines->addItem(Q(line));
    engines->setMaximumHeight(90);
    layout->addWidget(engines);

    auto* group = new QGroupBox(Q(logic_.LanguageGroup()), this);
    auto* buttons = new QHBoxLayout(group);
    chinese_ = new QRadioButton(QString::fromUtf8(app::texts::kLanguageChinese), group);
    english_ = new QRadioButton(QString::fromUtf8(app::texts::kLanguageEnglish), group);
    auto_ = new QRadioButton(QString::fromUtf8(app::texts::kLanguageAuto), group);
    for (auto* b : {chinese_, english_, auto_}) buttons->addWidget(b);
    (logic_.Preselected() == app::AboutDialogLogic::ENGLISH ? english_ : auto_)->setChecked(true);
    layout->addWidget(group);

    auto* confirm = new QPushButton(Q(logic_.ConfirmButton()), this);
    confirm->setDefault(true);
    connect(confirm, &QPushButton::clicked, this, &AboutDialog::accept);
    layout->addWidget(confirm, 0, Qt::AlignRight);
}

void AboutDialog::accept() {
    logic_.Confirm(english_->isChecked() ? app::AboutDialogLogic::ENGLISH
                   : auto_->isChecked()  ? app::AboutDialogLogic::AUTO
                                         : app::AboutDialogLogic::CHINESE);
    QDialog::accept();
}

}  // namespace quorvel::dialogs
