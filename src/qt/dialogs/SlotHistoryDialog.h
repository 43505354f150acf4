#pragma once
// One slot's jobs of today, newest first, with the failing step and error text of each
// failure. Shows what SlotHistoryRows made of the history files; decides nothing.
// GUI thread only.

#include <QDialog>
#include <string>
#include <vector>

#include "history/SlotHistory.h"
#include "station/Language.h"

namespace quorvel::dialogs {

class SlotHistoryDialog : public QDialog {
    Q_OBJECT
public:
    // `rowNumber`: the slot as the window numbers it ("07").
    SlotHistoryDialog(const std::string& rowNumber, const std::vector<console::SlotHistoryRow>& rows,
                      const app::Language& language, QWidget* parent);
};

}  // namespace quorvel::dialogs
