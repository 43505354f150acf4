#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "platform/StationLoop.h"

namespace quorvel::platform {
namespace {

// A handler that, on message 1, waits for an answer the way a dialog does.
class DialogHandler final : public MessageHandler {
public:
    explicit DialogHandler(StationLoop& loop) : loop_(loop) {}
    LResult HandleMessage(std::uint32_t msg, WParam, LParam) override {
        Log(msg == 1 ? "dialog open" : "message " + std::to_string(msg));
        if (msg == 1) {
            loop_.PumpUntil([this] { return answered.load(); });
            Log("dialog closed");
        }
        return 7;
    }
    void OnTimer(int id) override { Log("timer " + std::to_string(id)); }
    std::vector<std::string> Events() {
        std::lock_guard g(mutex_);
        return events_;
    }
    std::atomic<bool> answered{false};

private:
    void Log(const std::string& e) {
        std::lock_guard g(mutex_);
        events_.push_back(e);
    }
    StationLoop& loop_;
    std::mutex mutex_;
    std::vector<std::string> events_;
};

TEST(StationLoopNested, WhileADialogWaitsSendsAndTimersAreStillHandled) {
    ManualClock clock;
    StationLoop loop(clock);
    DialogHandler handler(loop);
    loop.SetHandler(&handler);
    loop.Start();
    loop.Post(1, 0, 0);
    loop.SetTimer(5, 100);
    ASSERT_TRUE(clock.AwaitWaiters(1));  // the nested pump sleeps until the timer

    // A worker's blocking report is answered while the dialog is open.
    auto report = std::async(std::launch::async, [&] { return loop.Send(2, 0, 0); });
    EXPECT_EQ(report.get(), 7);
    ASSERT_TRUE(clock.AwaitWaiters(1));
    clock.Advance(100);
    EXPECT_EQ(loop.Send(3, 0, 0), 7);  // a due timer goes before it

    handler.answered = true;
    loop.Wake();
    loop.Call([] {});  // the outer loop is back
    loop.KillTimer(5);
    loop.Stop();
    EXPECT_EQ(handler.Events(),
              (std::vector<std::string>{"dialog open", "message 2", "timer 5", "message 3", "dialog closed"}));
}

}  // namespace
}  // namespace quorvel::platform
