#pragma once
// Routes the slot messages to the slot's display: 6028 by the slot in its wParam,
// the SPRD engine's messages by the slot whose COM name holds "(COM<n>)", and the
// slot timers' ticks. Station thread only; no lock besides what the displays take.

#include <array>
#include <cstdint>

#include "station/Station.h"
#include "slots/DownloadManager.h"
#include "platform/StationLoop.h"

namespace quorvel::console {

class MessageRouter {
public:
    MessageRouter(app::Station& station, engine::DownloadManager& manager);

    // True when the message is one of the routed ones; its result goes to `result`.
    bool Route(std::uint32_t msg, platform::WParam wParam, platform::LParam lParam, platform::LResult& result);
    // True for the slot timers 0..15.
    bool RouteTimer(int id);

    // The first slot whose COM name contains "(COM<port>)", or -1.
    int SlotOfPort(unsigned long port) const;
    std::uint32_t SlotStepCounter(int slot) const { return stepCounter_.at(static_cast<std::size_t>(slot)); }

private:
    platform::LResult RouteSprd(std::uint32_t msg, platform::WParam wParam, platform::LParam lParam);

    app::Station& station_;
    engine::DownloadManager& manager_;
    std::array<std::uint32_t, app::kSlotCount> stepCounter_{};
};

}  // namespace quorvel::console
