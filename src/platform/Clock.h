#pragma once
// One clock for every sleep and wait of the station, so tests and the simulated
// bench can run in virtual or accelerated time. Any thread may call any method.

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

namespace quorvel::platform {

using Millis = std::int64_t;
inline constexpr Millis kForever = -1;

class Clock {
public:
    virtual ~Clock() = default;

    // Monotonic milliseconds since an arbitrary origin.
    virtual Millis Now() const = 0;
    // Seconds since the Unix epoch (UTC), advancing with Now().
    virtual std::int64_t WallSeconds() const = 0;

    void Sleep(Millis ms);

    // Waits on `cv` (with `lk` held) until `pred()` holds or `timeout` ms have passed
    // (kForever: no limit). Returns pred().
    template <class Pred>
    bool WaitFor(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis timeout, Pred pred) {
        if (timeout == kForever) {
            while (!pred()) WaitSlice(lk, cv, kForever);
            return true;
        }
        return WaitUntil(lk, cv, Now() + timeout, pred);
    }

    template <class Pred>
    bool WaitUntil(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis deadline, Pred pred) {
        while (!pred()) {
            if (Now() >= deadline) return pred();
            WaitSlice(lk, cv, deadline);
        }
        return true;
    }

protected:
    // Blocks until `cv` is notified or the clock reaches `deadline` (kForever: none);
    // may return early. Called with `lk` held.
    virtual void WaitSlice(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis deadline) = 0;
};

// Real time.
class SystemClock final : public Clock {
public:
    Millis Now() const override;
    std::int64_t WallSeconds() const override;

protected:
    void WaitSlice(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis deadline) override;
};

// Real time running `factor` times faster: a 5 s wait takes 5 ms at factor 1000.
class ScaledClock final : public Clock {
public:
    explicit ScaledClock(double factor);
    Millis Now() const override;
    std::int64_t WallSeconds() const override;
    double Factor() const { return factor_; }

protected:
    void WaitSlice(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis deadline) override;

private:
    double factor_;
    std::int64_t realStartNs_;
    std::int64_t wallStart_;
};

// Virtual time that moves only when a test calls Advance. Waiters register
// themselves so that an advance wakes exactly the threads whose deadline passed.
class ManualClock final : public Clock {
public:
    explicit ManualClock(Millis start = 0, std::int64_t wallStart = 1500000000);
    Millis Now() const override;
    std::int64_t WallSeconds() const override;

    void Advance(Millis ms);
    void AdvanceTo(Millis t);
    // Moves to the earliest deadline any waiter has; returns false when none waits with one.
    bool AdvanceToNextDeadline();
    // The earliest deadline any waiter has; kForever when none waits with one.
    Millis NextDeadline() const;
    // Number of threads currently blocked in a timed or untimed wait on this clock.
    int Waiters() const;
    // Blocks (in real time, at most `realTimeoutMs`) until at least `n` threads wait.
    bool AwaitWaiters(int n, int realTimeoutMs = 5000) const;

protected:
    void WaitSlice(std::unique_lock<std::mutex>& lk, std::condition_variable& cv, Millis deadline) override;

private:
    struct Waiter {
        std::condition_variable* cv;
        std::mutex* mutex;
        Millis deadline;
        int notifying;  // advances currently notifying this waiter; guarded by mutex_
    };
    void WakeAll();

    mutable std::mutex mutex_;
    mutable std::condition_variable waitersChanged_;
    Millis now_;
    std::int64_t wallStart_;
    std::vector<Waiter*> waiters_;
};

}  // namespace quorvel::platform
