#pragma once
// Routes the slot messages to the slot's display: the worker's and the MTK-style
// engines' by the slot they name, the SPRD engine's by the slot whose COM name holds
// "(COM<n>)", and the slot timers' ticks. Station thread only; no lock besides what
// the displays take.

#include <array>
#include <cstdint>

#include "slots/DownloadManager.h"
#include "station/Messages.h"
#include "station/Station.h"

namespace quorvel::console {

class MessageRouter {
public:
    MessageRouter(app::Station& station, engine::DownloadManager& manager);

    // True when the message is one of the routed ones; its result goes to `result`.
    bool Route(const app::Message& message, platform::LResult& result);
    // True for the slot timers 0..15.
    bool RouteTimer(int id);

    // The first slot whose COM name contains "(COM<port>)", or -1.
    int SlotOfPort(unsigned long port) const;
    std::uint32_t SlotStepCounter(int slot) const { return stepCounter_.at(static_cast<std::size_t>(slot)); }

private:
    // The display of a slot that has a row and a worker, or null.
    engine::SlotDisplay* DisplayOf(int slot) const;
    void RouteSprd(unsigned long port, const std::function<void(int slot, engine::DownloadWorker&)>& show);

    app::Station& station_;
    engine::DownloadManager& manager_;
    std::array<std::uint32_t, app::kSlotCount> stepCounter_{};
};

}  // namespace quorvel::console
