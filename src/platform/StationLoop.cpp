#include "platform/StationLoop.h"

#include <algorithm>

namespace quorvel::platform {

StationLoop::StationLoop(Clock& clock) : clock_(clock) {}

StationLoop::~StationLoop() {
    Stop();
}

void StationLoop::Start() {
    std::lock_guard g(mutex_);
    if (running_) return;
    running_ = true;
    stopping_ = false;
    thread_ = std::thread([this] { Run(); });
    threadId_.store(thread_.get_id());
}

void StationLoop::Stop() {
    {
        std::lock_guard g(mutex_);
        if (!running_) return;
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        if (IsStationThread())
            thread_.detach();
        else
            thread_.join();
    }
    std::lock_guard g(mutex_);
    running_ = false;
    // Release every sender still waiting; their Send returns 0.
    for (auto& item : queue_)
        if (item.done) {
            *item.done = true;
            item.replied->notify_one();
        }
    queue_.clear();
}

bool StationLoop::Running() const {
    std::lock_guard g(mutex_);
    return running_ && !stopping_;
}

void StationLoop::Enqueue(Item item, bool wait) {
    std::unique_lock lk(mutex_);
    if (!running_ || stopping_) return;
    bool done = false;
    std::condition_variable replied;
    if (wait) {
        item.done = &done;
        item.replied = &replied;
    }
    queue_.push_back(std::move(item));
    if (!wait) {
        lk.unlock();
        wake_.notify_one();
        return;
    }
    wake_.notify_one();
    // A sender waits without a time limit, as a blocking send does; Stop releases it.
    // Its condition variable is notified under mutex_, so it outlives every notify.
    replied.wait(lk, [&] { return done; });
}

LResult StationLoop::Send(std::uint32_t msg, WParam wParam, LParam lParam) {
    if (IsStationThread()) return handler_ ? handler_->HandleMessage(msg, wParam, lParam) : 0;
    LResult result = 0;
    Item item;
    item.run = [this, msg, wParam, lParam] { return handler_ ? handler_->HandleMessage(msg, wParam, lParam) : 0; };
    item.result = &result;
    Enqueue(std::move(item), true);
    return result;
}

void StationLoop::Post(std::uint32_t msg, WParam wParam, LParam lParam) {
    Item item;
    item.run = [this, msg, wParam, lParam] { return handler_ ? handler_->HandleMessage(msg, wParam, lParam) : 0; };
    Enqueue(std::move(item), false);
}

void StationLoop::Call(const std::function<void()>& task) {
    if (IsStationThread()) {
        task();
        return;
    }
    LResult ignored = 0;
    Item item;
    item.run = [&task] {
        task();
        return LResult{0};
    };
    item.result = &ignored;
    Enqueue(std::move(item), true);
}

void StationLoop::PostTask(std::function<void()> task) {
    Item item;
    item.run = [task = std::move(task)] {
        task();
        return LResult{0};
    };
    Enqueue(std::move(item), false);
}

void StationLoop::SetTimer(int id, Millis period) {
    {
        std::lock_guard g(mutex_);
        period = std::max<Millis>(period, 1);  // a zero period would starve the queue
        timers_[id] = Timer{period, clock_.Now() + period};
        timersChanged_ = true;
    }
    wake_.notify_all();
}

void StationLoop::KillTimer(int id) {
    std::lock_guard g(mutex_);
    timers_.erase(id);
    timersChanged_ = true;
}

void StationLoop::Run() {
    std::unique_lock lk(mutex_);
    Pump(lk, nullptr);
}

void StationLoop::PumpUntil(const std::function<bool()>& finished) {
    std::unique_lock lk(mutex_);
    Pump(lk, &finished);
    // Stopped while nested: nothing is handled any more, but the caller still waits.
    clock_.WaitFor(lk, wake_, kForever, [&] { return finished(); });
}

void StationLoop::PumpTimerUntil(int timerId, const std::function<bool()>& finished) {
    std::unique_lock lk(mutex_);
    Pump(lk, &finished, timerId);
    clock_.WaitFor(lk, wake_, kForever, [&] { return finished(); });
}

void StationLoop::Wake() {
    { std::lock_guard g(mutex_); }  // a pump between its check and its wait sees the change
    wake_.notify_all();
}

void StationLoop::Pump(std::unique_lock<std::mutex>& lk, const std::function<bool()>* finished, int onlyTimer) {
    auto over = [&] { return stopping_ || (finished && (*finished)()); };
    while (!over()) {
        // A due timer runs before the next message, so a busy queue never starves
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
            if (handler_) handler_->OnTimer(dueId);
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
