#include "platform/EventLoop.h"

#include <algorithm>

namespace quorvel::platform {

EventLoop::EventLoop(Clock& clock) : clock_(clock) {}

EventLoop::~EventLoop() {
    Stop();
}

void EventLoop::Start() {
    std::unique_lock lk(mutex_);
    if (running_ && !stopping_) return;
    if (thread_.joinable()) {
        // Stopped from its own thread: that thread has ended or is about to.
        lk.unlock();
        thread_.join();
        lk.lock();
    }
    running_ = true;
    stopping_ = false;
    thread_ = std::thread([this] { Run(); });
    threadId_.store(thread_.get_id());
}

void EventLoop::ReleaseWaitingLocked() {
    for (auto& item : queue_)
        if (item.done) {
            *item.done = true;
            item.replied->notify_one();
        }
    queue_.clear();
}

void EventLoop::Stop() {
    {
        std::lock_guard g(mutex_);
        if (!running_) return;
        stopping_ = true;
        // Release every caller still waiting; their Call returns 0.
        ReleaseWaitingLocked();
    }
    wake_.notify_all();
    if (IsStationThread()) return;  // the loop ends when this task returns; the owner joins
    if (thread_.joinable()) thread_.join();
    std::lock_guard g(mutex_);
    running_ = false;
    ReleaseWaitingLocked();
}

bool EventLoop::Running() const {
    std::lock_guard g(mutex_);
    return running_ && !stopping_;
}

LResult EventLoop::Enqueue(std::function<LResult()> run, bool wait) {
    std::unique_lock lk(mutex_);
    if (!running_ || stopping_) return 0;
    LResult result = 0;
    bool done = false;
    std::condition_variable replied;
    Item item{std::move(run)};
    if (wait) {
        item.result = &result;
        item.done = &done;
        item.replied = &replied;
    }
    queue_.push_back(std::move(item));
    if (!wait) {
        lk.unlock();
        wake_.notify_one();
        return 0;
    }
    wake_.notify_one();
    // A caller waits without a time limit, as a blocking send does; Stop releases it.
    // Its condition variable is notified under mutex_, so it outlives every notify.
    replied.wait(lk, [&] { return done; });
    return result;
}

LResult EventLoop::CallForResult(std::function<LResult()> task) {
    if (IsStationThread()) return task();
    return Enqueue(std::move(task), true);
}

void EventLoop::Call(std::function<void()> task) {
    CallForResult([&task] {
        task();
        return LResult{0};
    });
}

void EventLoop::PostTask(std::function<void()> task) {
    Enqueue(
        [task = std::move(task)] {
            task();
            return LResult{0};
        },
        false);
}

void EventLoop::SetTimer(int id, Millis period) {
    {
        std::lock_guard g(mutex_);
        period = std::max<Millis>(period, 1);  // a zero period would starve the queue
        timers_[id] = Timer{period, clock_.Now() + period};
        timersChanged_ = true;
    }
    wake_.notify_all();
}

void EventLoop::KillTimer(int id) {
    std::lock_guard g(mutex_);
    timers_.erase(id);
    timersChanged_ = true;
}

void EventLoop::Run() {
    std::unique_lock lk(mutex_);
    Pump(lk, nullptr);
}

void EventLoop::PumpUntil(const std::function<bool()>& finished) {
    std::unique_lock lk(mutex_);
    Pump(lk, &finished);
    // Stopped while nested: nothing is handled any more, but the caller still waits.
    clock_.WaitFor(lk, wake_, kForever, [&] { return finished(); });
}

void EventLoop::PumpTimerUntil(int timerId, const std::function<bool()>& finished) {
    std::unique_lock lk(mutex_);
    Pump(lk, &finished, timerId);
    clock_.WaitFor(lk, wake_, kForever, [&] { return finished(); });
}

void EventLoop::Wake() {
    { std::lock_guard g(mutex_); }  // a pump between its check and its wait sees the change
    wake_.notify_all();
}

void EventLoop::Pump(std::unique_lock<std::mutex>& lk, const std::function<bool()>* finished, int onlyTimer) {
    auto over = [&] { return stopping_ || (finished && (*finished)()); };
    while (!over()) {
        // A due timer runs before the next task, so a busy queue never starves
        // the slots' elapsed-time display; each firing moves the timer a period on.
        timersChanged_ = false;
        const Millis now = timers_.empty() ? 0 : clock_.Now();
        int dueId = -1;
        Millis next = kForever;
        for (auto& [id, t] : timers_) {
            if (onlyTimer >= 0 && id != onlyTimer) continue;
            if (t.due <= now) {
                dueId = id;
                break;
            }
            if (next == kForever || t.due < next) next = t.due;
        }
        if (dueId >= 0) {
            auto& t = timers_[dueId];
            t.due = now + t.period;
            lk.unlock();
            if (timerHandler_) timerHandler_->OnTimer(dueId);
            lk.lock();
            continue;
        }
        if (onlyTimer < 0 && !queue_.empty()) {
            Item item = std::move(queue_.front());
            queue_.pop_front();
            lk.unlock();
            const LResult r = item.run();
            lk.lock();
            if (item.result) *item.result = r;
            if (item.done) {
                *item.done = true;
                item.replied->notify_one();
            }
            continue;
        }
        auto ready = [&] { return over() || (onlyTimer < 0 && !queue_.empty()) || timersChanged_; };
        if (next == kForever)
            clock_.WaitFor(lk, wake_, kForever, ready);
        else
            clock_.WaitUntil(lk, wake_, next, [&] { return ready(); });
    }
}

}  // namespace quorvel::platform
