#pragma once
// The station thread: the event loop that runs every console handler, the binding
// logic, the commands and the timers, in place of the console window's message loop.
// Messages are typed values moved into the queue; Send waits for the handler's result,
// Post does not; one queue, so the order per sender is kept.
// Threads: SetHandler, Start and Stop belong to the owner; Send, Post and the timers
// may come from any thread; the handler runs on the station thread.

#include "platform/EventLoop.h"
#include "station/Messages.h"

namespace quorvel::app {

class StationLoop final : public platform::EventLoop, public MessageWindow {
public:
    using platform::EventLoop::EventLoop;

    // Set before Start.
    void SetHandler(MessageHandler* handler) {
        handler_ = handler;
        SetTimerHandler(handler);
    }

    // Sent from the station thread itself, a message is handled at once.
    // After Stop, Send returns 0 without running anything.
    platform::LResult Send(Message message) override;
    void Post(Message message) override;
    void SetTimer(int id, platform::Millis period) override { EventLoop::SetTimer(id, period); }
    void KillTimer(int id) override { EventLoop::KillTimer(id); }

private:
    MessageHandler* handler_ = nullptr;
};

}  // namespace quorvel::app
