#pragma once
// The station thread's event loop: one FIFO queue of tasks and the timers, in place of
// a window's message loop. Call waits until its task has run, PostTask does not; all
// tasks go through one queue, so the order per sender is kept. Timers and waits go
// through the station's Clock; a due timer runs before the next queued task.
// Threads: Start, Stop and the destructor belong to the owner; Call, PostTask,
// SetTimer, KillTimer and Wake may come from any thread; PumpUntil and PumpTimerUntil
// only from the loop's own thread, inside a task or a timer.

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

using LResult = std::int64_t;

// Runs the loop's timers. Called on the loop's thread only.
class TimerHandler {
public:
    virtual ~TimerHandler() = default;
    virtual void OnTimer(int id) = 0;
};

class EventLoop {
public:
    explicit EventLoop(Clock& clock);
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    virtual ~EventLoop();  // stops and joins the thread

    // Set before Start.
    void SetTimerHandler(TimerHandler* handler) { timerHandler_ = handler; }
    void Start();
    // Ends the loop after the task being run; queued tasks are dropped, and pending
    // Calls return. Called from the loop's own thread (a handler closing the station),
    // it only asks the loop to end: the thread is joined by the owner's next Stop or
    // by the destructor, never detached.
    void Stop();

    // Runs `task` on the loop's thread and waits for it; from the loop's thread it runs
    // at once. Returns the task's result, or 0 when the loop stopped before it ran.
    LResult CallForResult(std::function<LResult()> task);
    void Call(std::function<void()> task);
    void PostTask(std::function<void()> task);
    void SetTimer(int id, Millis period);
    void KillTimer(int id);

    // On the loop's thread, inside a task: goes on running tasks and timers, as a
    // modal dialog's loop does, until `finished` holds. `finished` is read under the loop's
    // lock; whoever makes it true calls Wake afterwards. After Stop it only waits.
    void PumpUntil(const std::function<bool()>& finished);
    // As PumpUntil, but only timer `timerId` runs; tasks wait. For a caller that must
    // hold the station still while another thread works on its state, yet keeps a
    // harmless timer (the clock) going.
    void PumpTimerUntil(int timerId, const std::function<bool()>& finished);
    void Wake();

    bool IsStationThread() const { return std::this_thread::get_id() == threadId_.load(); }
    bool Running() const;

private:
    struct Item {
        std::function<LResult()> run;
        // A waiting caller's reply: written and signalled under mutex_ while the caller
        // waits in Enqueue, whose frame holds all three.
        LResult* result = nullptr;
        bool* done = nullptr;
        std::condition_variable* replied = nullptr;  // the waiting caller's own, so only it wakes
    };
    struct Timer {
        Millis period;
        Millis due;
    };

    LResult Enqueue(std::function<LResult()> run, bool wait);
    void ReleaseWaitingLocked();
    void Run();
    void Pump(std::unique_lock<std::mutex>& lk, const std::function<bool()>* finished, int onlyTimer = -1);

    Clock& clock_;
    TimerHandler* timerHandler_ = nullptr;
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
