#pragma once
// Helpers of the device tests: a pseudo-terminal, a thread that moves a manual
// clock to each deadline as soon as someone sleeps, and a window that records.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/Clock.h"
#include "station/Messages.h"
#include "support/StationFixture.h"

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
    int Master() const { return master_; }
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

// Keeps what is sent or posted to it, in order: "sent 6024", "posted command 1019 auto"
// (a command by its id, "auto" for an automatic stop).
class RecordingWindow final : public app::MessageWindow {
public:
    platform::LResult Send(app::Message message) override { return Keep("sent ", message), 0; }
    void Post(app::Message message) override { Keep("posted ", message); }
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}
    std::vector<std::string> Log() const {
        std::lock_guard g(mutex_);
        return log_;
    }

private:
    void Keep(const char* how, const app::Message& message) {
        std::string text = std::to_string(app::NumberOf(message));
        if (const auto* c = std::get_if<app::Command>(&message))
            text = "command " + std::to_string(static_cast<std::uint32_t>(c->id)) + (c->autoStop ? " auto" : "");
        std::lock_guard g(mutex_);
        log_.push_back(how + text);
    }
    mutable std::mutex mutex_;
    std::vector<std::string> log_;
};

}  // namespace quorvel::test
