#include "platform/Clock.h"

#include <algorithm>
#include <chrono>
#include <ctime>

namespace quorvel::platform {

namespace {
std::int64_t SteadyNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
}  // namespace

void Clock::Sleep(Millis ms) {
    std::mutex m;
    std::condition_variable cv;
    std::unique_lock lk(m);
    WaitFor(lk, cv, std::max<Millis>(ms, 0), [] { return false; });
}

Millis SystemClock::Now() const {
    return SteadyNs() / 1000000;
}

std::int64_t SystemClock::WallSeconds() const {
    return static_cast<std::int64_t>(std::time(nullptr));
}

void SystemClock::WaitSlice(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis deadline) {
    if (deadline == kForever) {
        cv.wait(lk);
        return;
    }
    cv.wait_until(lk, std::chrono::steady_clock::time_point(std::chrono::milliseconds(deadline)));
}

ScaledClock::ScaledClock(double factor)
    : factor_(factor > 0 ? factor : 1.0), realStartNs_(SteadyNs()), wallStart_(std::time(nullptr)) {}

Millis ScaledClock::Now() const {
    return static_cast<Millis>(static_cast<double>(SteadyNs() - realStartNs_) * factor_ / 1e6);
}

std::int64_t ScaledClock::WallSeconds() const {
    return wallStart_ + Now() / 1000;
}

void ScaledClock::WaitSlice(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis deadline) {
    if (deadline == kForever) {
        cv.wait(lk);
        return;
    }
    const auto realNs = realStartNs_ + static_cast<std::int64_t>(static_cast<double>(deadline) * 1e6 / factor_);
    // Round up so that a wake-up never comes before the scaled deadline.
    cv.wait_until(lk, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(realNs + 1)));
}

ManualClock::ManualClock(Millis start, std::int64_t wallStart) : now_(start), wallStart_(wallStart) {}

Millis ManualClock::Now() const {
    std::lock_guard g(mutex_);
    return now_;
}

std::int64_t ManualClock::WallSeconds() const {
    std::lock_guard g(mutex_);
    return wallStart_ + now_ / 1000;
}

void ManualClock::WaitSlice(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis deadline) {
    Waiter self{&cv, lk.mutex(), deadline, 0};
    {
        std::lock_guard g(mutex_);
        if (deadline != kForever && now_ >= deadline) return;
        waiters_.push_back(&self);
    }
    waitersChanged_.notify_all();
    // The caller's mutex is held until cv.wait releases it, and WakeDue takes that
    // mutex before notifying, so no advance can slip between registering and waiting.
    cv.wait(lk);
    // Leave only when no advance is still notifying us, or it would touch a dead cv;
    // the caller's mutex is released meanwhile because that advance may need it.
    lk.unlock();
    {
        std::unique_lock g(mutex_);
        waitersChanged_.wait(g, [&] { return self.notifying == 0; });
        waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &self));
    }
    waitersChanged_.notify_all();
    lk.lock();
}

void ManualClock::Advance(Millis ms) {
    {
        std::lock_guard g(mutex_);
        now_ += std::max<Millis>(ms, 0);
    }
    WakeAll();
}

void ManualClock::AdvanceTo(Millis t) {
    {
        std::lock_guard g(mutex_);
        now_ = std::max(now_, t);
    }
    WakeAll();
}

Millis ManualClock::NextDeadline() const {
    Millis next = kForever;
    std::lock_guard g(mutex_);
    for (auto* w : waiters_)
        if (w->deadline != kForever && (next == kForever || w->deadline < next)) next = w->deadline;
    return next;
}

bool ManualClock::AdvanceToNextDeadline() {
    const Millis next = NextDeadline();
    if (next == kForever) return false;
    AdvanceTo(next);
    return true;
}

int ManualClock::Waiters() const {
    std::lock_guard g(mutex_);
    return static_cast<int>(waiters_.size());
}

bool ManualClock::AwaitWaiters(int n, int realTimeoutMs) const {
    std::unique_lock lk(mutex_);
    return waitersChanged_.wait_for(lk, std::chrono::milliseconds(realTimeoutMs),
                                    [&] { return static_cast<int>(waiters_.size()) >= n; });
}

void ManualClock::WakeAll() {
    std::vector<Waiter*> due;
    {
        std::lock_guard g(mutex_);
        for (auto* w : waiters_)
            if (w->deadline != kForever && w->deadline <= now_) {
                ++w->notifying;
                due.push_back(w);
            }
    }
    for (auto* w : due) {
        std::lock_guard g(*w->mutex);
        w->cv->notify_all();
    }
    {
        std::lock_guard g(mutex_);
        for (auto* w : due) --w->notifying;
    }
    waitersChanged_.notify_all();
}

}  // namespace quorvel::platform
