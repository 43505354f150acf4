#include "present/CloseCheck.h"

#include <cstdio>

#include "station/BindState.h"
#include "station/Texts.h"

namespace quorvel::console {

std::vector<int> BusySlots(const app::SlotTables& slots) {
    std::vector<int> busy;
    for (int slot = 0; slot < app::kSlotCount; ++slot)
        if (slots.jobRunning[static_cast<std::size_t>(slot)].load()) busy.push_back(slot);
    return busy;
}

std::string CloseQuestion(const std::vector<int>& busySlots, const app::Language& language, bool sessionEnding) {
    if (sessionEnding || busySlots.empty()) return {};
    std::string names;
    for (int slot : busySlots) {
        char number[16];
        std::snprintf(number, sizeof number, "%02d", slot + 1);
        names += (names.empty() ? "" : ", ") + std::string(number);
    }
    std::string text = language.ChooseText(app::texts::kCloseWhileBusy);
    text.replace(text.find("%s"), 2, names);
    return text;
}

}  // namespace quorvel::console
