#pragma once
// Whether closing the window must first ask the operator: a close while phones are
// being flashed can leave them unusable. Plain functions; any thread.

#include <string>
#include <vector>

#include "station/BindingTable.h"
#include "station/Language.h"

namespace quorvel::console {

// The slots whose phone is being flashed now, in slot order: a CFG slot that stays
// BUSY after its job until Stop is not one of them.
std::vector<int> BusySlots(const app::SlotTables& slots);

// The question to ask before closing, naming the busy slots by their row numbers;
// empty when the window may close at once. A close that is part of the session's
// shutdown is never asked: nobody would be there to answer.
std::string CloseQuestion(const std::vector<int>& busySlots, const app::Language& language, bool sessionEnding);

}  // namespace quorvel::console
