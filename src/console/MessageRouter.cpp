#include "console/MessageRouter.h"

#include "devices/DeviceText.h"
#include "station/Messages.h"

namespace quorvel::console {

using app::WM_APP;

MessageRouter::MessageRouter(app::Station& station, engine::DownloadManager& manager)
    : station_(station), manager_(manager) {}

bool MessageRouter::Route(std::uint32_t msg, platform::WParam wParam, platform::LParam lParam,
                          platform::LResult& result) {
    if (msg == app::MSG_SLOT_PROGRESS) {
        result = 0;
        const int slot = static_cast<int>((wParam >> 16) & 0xFF);
        if (slot >= station_.slotList.RowCount()) return true;
        if (auto* worker = manager_.WorkerAt(slot)) result = worker->Display().HandleProgress(wParam, lParam);
        return true;
    }
    if (msg >= app::MSG_SPRD_FIRST && msg <= app::MSG_SPRD_LAST) {
        result = RouteSprd(msg, wParam, lParam);
        return true;
    }
    return false;
}

int MessageRouter::SlotOfPort(unsigned long port) const {
    const std::string wanted = devices::ComTag(port);
    for (int slot = 0; slot < app::kSlotCount; ++slot)
        if (station_.bindings.ComName(slot).find(wanted) != std::string::npos) return slot;
    return -1;
}

platform::LResult MessageRouter::RouteSprd(std::uint32_t msg, platform::WParam wParam, platform::LParam lParam) {
    const int slot = SlotOfPort(static_cast<unsigned long>(wParam));
    if (slot < 0 || slot >= station_.slotList.RowCount()) return 0;
    auto* worker = manager_.WorkerAt(slot);
    if (!worker) return 0;
    auto& display = worker->Display();
    auto& counter = stepCounter_[static_cast<std::size_t>(slot)];
    switch (msg - WM_APP) {
        case 201: counter = 0; return 0;
        case 202: {
            const std::string name = worker->Sprd().GetStepName(static_cast<int>(counter));
            ++counter;
            display.SetStepName(slot, name);
            return 0;
        }
        case 204: return display.ShowStep(slot, 1, 0);
        case 205: return display.ShowStep(slot, 2, 0);
        case 207: return display.ShowStep(slot, 4, lParam);
        case 208: return display.ShowSprdProgress(slot, static_cast<std::uint32_t>(lParam));
        case 214: return display.ShowStep(slot, 9, 0);
        case 217: return display.ShowStep(slot, 10, lParam);
        default: return 0;
    }
}

bool MessageRouter::RouteTimer(int id) {
    if (id < 0 || id >= app::kSlotCount) return false;
    manager_.ShowSlotElapsed(id);
    return true;
}

}  // namespace quorvel::console
