#include "qt/dialogs/SlotHistoryDialog.h"

#include <QDialogButtonBox>
#include <QHeaderView>
#include <QLabel>
#include <QTableWidget>
#include <QVBoxLayout>

#include "station/Texts.h"

namespace quorvel::dialogs {

namespace {
QString Q(const std::string& s) {
    return QString::fromUtf8(s.c_str());
}
}  // namespace

SlotHistoryDialog::SlotHistoryDialog(const std::string& rowNumber, const std::vector<console::SlotHistoryRow>& rows,
                                     const app::Language& language, QWidget* parent)
    : QDialog(parent) {
    setWindowTitle(Q(language.ChooseText(app::texts::kHistoryTitle)).replace(QStringLiteral("%s"), Q(rowNumber)));
    setStyleSheet("QDialog { background: rgb(247, 255, 252); }");
    resize(760, 420);
    auto* layout = new QVBoxLayout(this);
    if (rows.empty()) {
        layout->addWidget(new QLabel(Q(language.ChooseText(app::texts::kHistoryEmpty)), this));
    } else {
        constexpr int kColumns = 5;
        auto* table = new QTableWidget(static_cast<int>(rows.size()), kColumns, this);
        QStringList headers;
        for (const app::LangText& t : app::texts::kHistoryColumns) headers << Q(language.ChooseText(t));
        table->setHorizontalHeaderLabels(headers);
        table->verticalHeader()->hide();
        table->setEditTriggers(QAbstractItemView::NoEditTriggers);
        table->setSelectionBehavior(QAbstractItemView::SelectRows);
        table->horizontalHeader()->setStretchLastSection(true);
        for (int r = 0; r < static_cast<int>(rows.size()); ++r) {
            const console::SlotHistoryRow& row = rows[static_cast<std::size_t>(r)];
            const std::string* cells[kColumns] = {&row.ended, &row.result, &row.time, &row.port, &row.why};
            for (int c = 0; c < kColumns; ++c) {
                auto* item = new QTableWidgetItem(Q(*cells[c]));
                if (c == kColumns - 1) item->setToolTip(Q(*cells[c]));  // a long error text is cut in the cell
                if (row.failed && c == 1) item->setForeground(QColor(200, 0, 0));
                table->setItem(r, c, item);
            }
        }
        table->resizeColumnsToContents();
        layout->addWidget(table);
    }
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}

}  // namespace quorvel::dialogs
