#include "console/MessageRouter.h"

#include "devices/DeviceText.h"
#include "station/Messages.h"

namespace quorvel::console {

MessageRouter::MessageRouter(app::Station& station, engine::DownloadManager& manager)
    : station_(station), manager_(manager) {}

engine::SlotDisplay* MessageRouter::DisplayOf(int slot) const {
    if (slot < 0 || slot >= station_.slotList.RowCount()) return nullptr;
    auto* worker = manager_.WorkerAt(slot);
    return worker ? &worker->Display() : nullptr;
}

bool MessageRouter::Route(const app::Message& message, platform::LResult& result) {
    result = 0;
    const auto toSlot = [this](const auto& m) {
        if (auto* display = DisplayOf(m.slot)) display->Show(m);
        return true;
    };
    return std::visit(app::Overloaded{
                          [&](const app::SlotStatus& m) { return toSlot(m); },
                          [&](const app::SlotBar& m) { return toSlot(m); },
                          [&](const app::SlotAccount& m) { return toSlot(m); },
                          [&](const app::SlotIdentity& m) { return toSlot(m); },
                          [&](const app::SlotDaSwitched& m) { return toSlot(m); },
                          [&](const app::SlotVerdict& m) { return toSlot(m); },
                          [&](const app::SprdBegin& m) {
                              RouteSprd(m.port, [this](int slot, engine::DownloadWorker&) {
                                  stepCounter_[static_cast<std::size_t>(slot)] = 0;
                              });
                              return true;
                          },
                          [&](const app::SprdStepNamed& m) {
                              RouteSprd(m.port, [this](int slot, engine::DownloadWorker& worker) {
                                  auto& counter = stepCounter_[static_cast<std::size_t>(slot)];
                                  const std::string name = worker.Sprd().GetStepName(static_cast<int>(counter));
                                  ++counter;
                                  worker.Display().SetStepName(slot, name);
                              });
                              return true;
                          },
                          [&](const app::SprdStepEntered& m) {
                              // The console shows only these steps; the engine announces others too.
                              using S = app::SprdStep;
                              if (m.step == S::CHECK_BAUD || m.step == S::CONNECTING || m.step == S::DOWNLOADING ||
                                  m.step == S::CHANGE_BAUD)
                                  RouteSprd(m.port, [&](int slot, engine::DownloadWorker& worker) {
                                      worker.Display().ShowStep(slot, m.step);
                                  });
                              return true;
                          },
                          [&](const app::SprdProgress& m) {
                              RouteSprd(m.port, [&](int slot, engine::DownloadWorker& worker) {
                                  worker.Display().ShowSprdProgress(slot, m.percent);
                              });
                              return true;
                          },
                          [&](const app::SprdIdentity& m) {
                              RouteSprd(m.port, [&](int, engine::DownloadWorker& worker) {
                                  worker.Display().ShowIdentity(m.device);
                              });
                              return true;
                          },
                          [&](const app::SprdResult& m) {
                              RouteSprd(m.port, [&](int slot, engine::DownloadWorker& worker) {
                                  worker.Display().SprdFinished(slot, m);
                              });
                              return true;
                          },
                          [](const auto&) { return false; },
                      },
                      message);
}

int MessageRouter::SlotOfPort(unsigned long port) const {
    const std::string wanted = devices::ComTag(port);
    for (int slot = 0; slot < app::kSlotCount; ++slot)
        if (station_.bindings.ComName(slot).find(wanted) != std::string::npos) return slot;
    return -1;
}

void MessageRouter::RouteSprd(unsigned long port, const std::function<void(int, engine::DownloadWorker&)>& show) {
    const int slot = SlotOfPort(port);
    if (slot < 0 || slot >= station_.slotList.RowCount()) return;
    if (auto* worker = manager_.WorkerAt(slot)) show(slot, *worker);
}

bool MessageRouter::RouteTimer(int id) {
    if (id < 0 || id >= app::kSlotCount) return false;
    manager_.ShowSlotElapsed(id);
    return true;
}

}  // namespace quorvel::console
