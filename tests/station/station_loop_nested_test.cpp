#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "station/StationLoop.h"

namespace quorvel::app {
namespace {

using platform::LResult;
using platform::ManualClock;

// A test message numbered `id`.
Message Msg(int id) {
    return SlotBar{id, BarValue::PERCENT, 0};
}

// A handler that, on message 1, waits for an answer the way a dialog does.
class DialogHandler final : public MessageHandler {
public:
    explicit DialogHandler(StationLoop& loop) : loop_(loop) {}
    LResult HandleMessage(const Message& message) override {
        const int msg = std::get<SlotBar>(message).slot;
        Log(msg == 1 || msg == 4 ? "dialog open" : "message " + std::to_string(msg));
        if (msg == 1) {
            loop_.PumpUntil([this] { return answered.load(); });
            Log("dialog closed");
        }
        if (msg == 4) {  // a dialog that holds the station still but for timer 5
            loop_.PumpTimerUntil(5, [this] { return answered.load(); });
            Log("dialog closed");
        }
        return 7;
    }
    void OnTimer(int id) override { Log("timer " + std::to_string(id)); }
    std::vector<std::string> Events() {
        std::lock_guard g(mutex_);
        return events_;
    }
    bool AwaitEvents(std::size_t n) {
        std::unique_lock lk(mutex_);
        return logged_.wait_for(lk, std::chrono::seconds(10), [&] { return events_.size() >= n; });
    }
    std::atomic<bool> answered{false};

private:
    void Log(const std::string& e) {
        std::lock_guard g(mutex_);
        events_.push_back(e);
        logged_.notify_all();
    }
    StationLoop& loop_;
    std::mutex mutex_;
    std::condition_variable logged_;
    std::vector<std::string> events_;
};

TEST(StationLoopNested, WhileADialogWaitsSendsAndTimersAreStillHandled) {
    ManualClock clock;
    StationLoop loop(clock);
    DialogHandler handler(loop);
    loop.SetHandler(&handler);
    loop.Start();
    loop.Post(Msg(1));
    loop.SetTimer(5, 100);
    ASSERT_TRUE(clock.AwaitWaiters(1));  // the nested pump sleeps until the timer

    // A worker's blocking report is answered while the dialog is open.
    auto report = std::async(std::launch::async, [&] { return loop.Send(Msg(2)); });
    EXPECT_EQ(report.get(), 7);
    ASSERT_TRUE(clock.AwaitWaiters(1));
    clock.Advance(100);
    EXPECT_EQ(loop.Send(Msg(3)), 7);  // a due timer goes before it

    handler.answered = true;
    loop.Wake();
    loop.Call([] {});  // the outer loop is back
    loop.KillTimer(5);
    loop.Stop();
    EXPECT_EQ(handler.Events(),
              (std::vector<std::string>{"dialog open", "message 2", "timer 5", "message 3", "dialog closed"}));
}

// A dialog that needs the station held still keeps the clock going, and only the clock.
TEST(StationLoopNested, AHeldDialogRunsOnlyItsTimerAndLeavesMessagesQueued) {
    ManualClock clock;
    StationLoop loop(clock);
    DialogHandler handler(loop);
    loop.SetHandler(&handler);
    loop.Start();
    loop.Post(Msg(4));
    loop.SetTimer(5, 100);
    loop.SetTimer(6, 100);
    ASSERT_TRUE(clock.AwaitWaiters(1));
    loop.Post(Msg(2));
    clock.Advance(100);
    ASSERT_TRUE(handler.AwaitEvents(2));

    handler.answered = true;
    loop.Wake();
    loop.Call([] {});
    loop.Stop();
    EXPECT_EQ(handler.Events(),
              (std::vector<std::string>{"dialog open", "timer 5", "dialog closed", "timer 6", "message 2"}));
}

}  // namespace
}  // namespace quorvel::app
