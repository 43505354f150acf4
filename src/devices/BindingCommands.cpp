#include "devices/BindingCommands.h"

#include <array>
#include <cstdio>

#include "station/Station.h"

namespace quorvel::devices {

using namespace app;

namespace {
void Unbind(Station& st, int slot) {
    st.bindings.SetComName(slot, kUnbound);
    st.bindings.SetHsLocation(slot, kUnbound);
    st.bindings.SetLsLocation(slot, kUnbound);
    st.bindings.SetState(slot, BindState::Idle);
}
}  // namespace

bool BindingCommands::RemoveBindAt(int slot) {
    if (slot < 0 || slot >= station_.slotList.RowCount() || slot >= kSlotCount) return false;
    Unbind(station_, slot);
    station_.slots.rowShown[static_cast<std::size_t>(slot)] = false;
    station_.slotList.DeleteRow(slot);
    CompactBindings();
    const int rows = station_.slotList.RowCount();
    for (int r = 0; r < rows; ++r) {
        char number[16];
        std::snprintf(number, sizeof number, "%02d", r + 1);
        station_.slotList.SetCellText(r, COL_NUMBER, number);
    }
    station_.settingsStore.SaveBindings();
    return true;
}

void BindingCommands::CompactBindings() {
    std::array<BindingTable::Entry, kSlotCount> packed;
    packed.fill({kUnbound, kUnbound, kUnbound, BindState::Idle});
    std::size_t next = 0;
    for (int n = 0; n < kSlotCount; ++n) {
        auto e = station_.bindings.Get(n);
        if (e.hs != kUnbound) packed[next++] = std::move(e);
    }
    for (int n = 0; n < kSlotCount; ++n) Unbind(station_, n);
    for (int n = 0; n < kSlotCount; ++n) {
        const auto& e = packed[static_cast<std::size_t>(n)];
        if (e.hs == kUnbound) continue;
        station_.bindings.SetHsLocation(n, e.hs);
        station_.bindings.SetLsLocation(n, e.ls);
        station_.bindings.SetComName(n, e.com);
        station_.bindings.SetState(n, e.state);
    }
}

void BindingCommands::RemoveAllBind() {
    for (int n = 0; n < kSlotCount; ++n) {
        Unbind(station_, n);
        station_.slots.rowShown[static_cast<std::size_t>(n)] = false;
    }
    station_.slotList.DeleteAllRows();
    station_.settingsStore.SaveBindings();
    station_.settings.HasScan = 0;
}

void BindingCommands::MergeRepeatBind() {
    for (;;) {
        int qualifying = -1;
        for (int i = 0; i < kSlotCount && qualifying < 0; ++i) {
            const auto e = station_.bindings.Get(i);
            if (e.state != BindState::PreloaderBinded) continue;
            for (int j = 0; j < kSlotCount; ++j)
                if (j != i && station_.bindings.HsLocation(j) == e.hs) {
                    qualifying = i;
                    break;
                }
        }
        // A qualifying slot without a row cannot be removed; scanning again would never end.
        if (qualifying < 0 || !RemoveBindAt(qualifying)) return;
    }
}

}  // namespace quorvel::devices
