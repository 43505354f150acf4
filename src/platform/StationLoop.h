#pragma once
// The station thread: one event loop that runs every console handler, the binding
// logic, the commands and the timers, in place of the console window's message
// loop. Messages keep their numbers and parameters; Send blocks until the handler
// has returned its result, Post does not; all messages go through one queue, so the
// order per sender is kept. Timers and waits go through the station's Clock; a due
// timer runs before the next queued message.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "platform/Clock.h"

namespace quorvel::platform {

using WParam = std::uint64_t;
using LParam = std::int64_t;
using LResult = std::int64_t;

// What the station thread runs. Called on the station thread only.
class MessageHandler {
public:
    virtual ~MessageHandler() = default;
    virtual LResult HandleMessage(std::uint32_t msg, WParam wParam, LParam lParam) = 0;
    virtual void OnTimer(int id) = 0;
};

// The console window as its message senders see it. Any thread may call.
class MessageWindow {
public:
    virtual ~MessageWindow() = default;
    virtual LResult Send(std::uint32_t msg, WParam wParam, LParam lParam) = 0;
    virtual void Post(std::uint32_t msg, WParam wParam, LParam lParam) = 0;
    virtual void SetTimer(int id, Millis period) = 0;
    virtual void KillTimer(int id) = 0;
};

class StationLoop final : public MessageWindow {
public:
    explicit StationLoop(Clock& clock);
    ~StationLoop() override;  // stops the thread

    // Set before Start; called on the station thread.
    void SetHandler(MessageHandler* handler) { handler_ = handler; }
    void Start();
    // Ends the loop after the message being handled; queued messages are dropped,
    // and pending Sends return 0.
    void Stop();

    // Sent from the station thread itself, a message is handled at once.
    // After Stop, Send returns 0 without running anything.
    LResult Send(std::uint32_t msg, WParam wParam, LParam lParam) override;
    void Post(std::uint32_t msg, WParam wParam, LParam lParam) override;
    void SetTimer(int id, Millis period) override;
    void KillTimer(int id) override;

    // Runs `task` on the station thread: Call waits for it, PostTask does not.
    void Call(const std::function<void()>& task);
    void PostTask(std::function<void()> task);

    // On the station thread, inside a handler: goes on handling messages and timers, as a
    // modal dialog's loop does, until `finished` holds. `finished` is read under the loop's
    // lock; whoever makes it true calls Wake afterwards. After Stop it only waits.
    void PumpUntil(const std::function<bool()>& finished);
    // As PumpUntil, but only timer `timerId` runs; messages wait. For a caller that must
    // hold the station still while another thread works on its state, yet keeps a
    // harmless timer (the clock) going.
    void PumpTimerUntil(int timerId, const std::function<bool()>& finished);
    void Wake();

    bool IsStationThread() const { return std::this_thread::get_id() == threadId_.load(); }
    bool Running() const;

private:
    struct Item {
        std::function<LResult()> run;
        LResult* result = nullptr;  // Send: where the reply goes
        bool* done = nullptr;
        std::condition_variable* replied = nullptr;  // the waiting sender's own, so only it wakes
    };
    struct Timer {
        Millis period;
        Millis due;
    };

    void Enqueue(Item item, bool wait);
    void Run();
    void Pump(std::unique_lock<std::mutex>& lk, const std::function<bool()>* finished, int onlyTimer = -1);

    Clock& clock_;
    MessageHandler* handler_ = nullptr;
    mutable std::mutex mutex_;
    std::condition_variable wake_;  // the loop: new item, timer change, stop
    std::deque<Item> queue_;
    std::map<int, Timer> timers_;
    bool running_ = false;
    bool stopping_ = false;
    std::thread thread_;
    std::atomic<std::thread::id> threadId_{};
    bool timersChanged_ = false;
};

}  // namespace quorvel::platform
