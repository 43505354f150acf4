#pragma once
// Helpers of the device tests: a pseudo-terminal, a thread that moves a manual
// clock to each deadline as soon as someone sleeps, and a window that records.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/Clock.h"
#include "platform/StationLoop.h"

namespace quorvel::test {

class Pty {
public:
    Pty() {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        char name[128];
        if (master_ >= 0 && ::grantpt(master_) == 0 && ::unlockpt(master_) == 0 &&
            ::ptsname_r(master_, name, sizeof name) == 0)
            slave_ = name;
    }
    ~Pty() {
        if (master_ >= 0) ::close(master_);
    }
    const std::string& Slave() const { return slave_; }

private:
    int master_ = -1;
    std::string slave_;
};

// Keeps advancing the clock to the next deadline while running, so code that sleeps
// through it runs at once and its virtual time can be measured exactly.
class ClockDriver {
public:
    explicit ClockDriver(platform::ManualClock& clock) : clock_(clock) {
        thread_ = std::thread([this] {
            while (!stop_) {
                if (clock_.AwaitWaiters(1, 5)) clock_.AdvanceToNextDeadline();
            }
        });
    }
    ~ClockDriver() {
        stop_ = true;
        thread_.join();
    }

private:
    platform::ManualClock& clock_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class RecordingWindow final : public platform::MessageWindow {
public:
    using Msg = std::tuple<std::uint32_t, platform::WParam, platform::LParam>;
    platform::LResult Send(std::uint32_t msg, platform::WParam w, platform::LParam l) override {
        std::lock_guard g(mutex_);
        sent.emplace_back(msg, w, l);
        return 0;
    }
    void Post(std::uint32_t msg, platform::WParam w, platform::LParam l) override {
        std::lock_guard g(mutex_);
        posted.emplace_back(msg, w, l);
    }
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}
    std::vector<Msg> Posted() const {
        std::lock_guard g(mutex_);
        return posted;
    }

    mutable std::mutex mutex_;
    std::vector<Msg> sent, posted;
};

}  // namespace quorvel::test
