#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "station/StationLoop.h"

namespace quorvel::app {
namespace {

using platform::LResult;
using platform::ManualClock;
using WParam = std::uint32_t;

// A test message: `id` tells senders apart, `w` is its payload.
Message Msg(std::uint32_t id, WParam w = 0) {
    return SlotBar{static_cast<int>(id), BarValue::PERCENT, w};
}

// Keeps the messages it handles and, in order, its timers and what `onMessage` logs.
class Recorder final : public MessageHandler {
public:
    LResult HandleMessage(const Message& message) override {
        const auto& m = std::get<SlotBar>(message);
        const auto msg = static_cast<std::uint32_t>(m.slot);
        if (onMessage) return onMessage(msg, m.value);
        std::lock_guard g(mutex);
        messages.push_back({msg, m.value});
        return static_cast<LResult>(m.value) * 2 + 1;
    }
    void OnTimer(int id) override { Log("timer " + std::to_string(id)); }
    void Log(const std::string& event) {
        std::lock_guard g(mutex);
        events.push_back(event);
        logged.notify_all();
    }
    // The events once there are `n` (or after 10 s).
    std::vector<std::string> Events(std::size_t n = 0) {
        std::unique_lock lk(mutex);
        logged.wait_for(lk, std::chrono::seconds(10), [&] { return events.size() >= n; });
        return events;
    }
    std::function<LResult(std::uint32_t, WParam)> onMessage;
    std::mutex mutex;
    std::condition_variable logged;
    std::vector<std::pair<std::uint32_t, WParam>> messages;
    std::vector<std::string> events;
};

struct LoopFixture : ::testing::Test {
    LoopFixture() {
        loop.SetHandler(&handler);
        loop.Start();
    }
    // Message 1 opens a message box, whose modal loop handles messages and timers;
    // message 4 a dialog that holds the station still but for timer 5. Both close once
    // `answered`.
    void OpenDialogsOnMessages() {
        handler.onMessage = [this](std::uint32_t msg, WParam) -> LResult {
            const bool dialog = msg == 1 || msg == 4;
            handler.Log(dialog ? "dialog open" : "message " + std::to_string(msg));
            if (msg == 1) loop.PumpUntil([this] { return answered.load(); });
            if (msg == 4) loop.PumpTimerUntil(5, [this] { return answered.load(); });
            if (dialog) handler.Log("dialog closed");
            return 7;
        };
    }
    void Answer() {
        answered = true;
        loop.Wake();
        loop.Call([] {});  // the outer loop is back
    }
    ManualClock clock;
    Recorder handler;
    StationLoop loop{clock};
    std::atomic<bool> answered{false};
};

TEST_F(LoopFixture, OrderPerSenderIsKeptAndSendReturnsTheResult) {
    std::vector<std::thread> senders;
    for (std::uint32_t s = 0; s < 4; ++s)
        senders.emplace_back([&, s] {
            for (WParam i = 0; i < 500; ++i) {
                if (i % 3 == 0)
                    EXPECT_EQ(loop.Send(Msg(100 + s, i)), static_cast<LResult>(i * 2 + 1));
                else
                    loop.Post(Msg(100 + s, i));
            }
        });
    for (auto& t : senders) t.join();
    loop.Call([] {});  // everything posted before is handled
    std::lock_guard g(handler.mutex);
    ASSERT_EQ(handler.messages.size(), 2000u);
    std::vector<WParam> next(4, 0);
    for (auto [msg, w] : handler.messages) EXPECT_EQ(w, next[msg - 100]++);
}

TEST_F(LoopFixture, SendFromTheStationThreadRunsAtOnce) {
    std::vector<std::uint32_t> order;
    handler.onMessage = [&](std::uint32_t msg, WParam) -> LResult {
        order.push_back(msg);
        if (msg == 1) {
            EXPECT_TRUE(loop.IsStationThread());
            const LResult inner = loop.Send(Msg(2));
            order.push_back(99);
            return inner + 10;
        }
        return 5;
    };
    EXPECT_EQ(loop.Send(Msg(1)), 15);
    EXPECT_EQ(order, (std::vector<std::uint32_t>{1, 2, 99}));
    EXPECT_FALSE(loop.IsStationThread());
}

TEST_F(LoopFixture, TimersTickInVirtualTimeUntilKilledAndAreNotStarvedByABusyQueue) {
    loop.SetTimer(3, 1000);
    ASSERT_TRUE(clock.AwaitWaiters(1));
    clock.Advance(999);
    loop.Call([] {});
    EXPECT_TRUE(handler.Events().empty());
    clock.Advance(1);
    EXPECT_EQ(handler.Events(1), std::vector<std::string>{"timer 3"});
    clock.Advance(1000);
    EXPECT_EQ(handler.Events(2), (std::vector<std::string>{"timer 3", "timer 3"}));
    loop.KillTimer(3);
    loop.Call([] {});
    clock.Advance(5000);
    loop.Call([] {});
    EXPECT_EQ(handler.Events().size(), 2u);

    loop.SetTimer(7, 10);
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop) loop.Post(Msg(1));
    });
    clock.Advance(10);
    const auto ticks = handler.Events(3);
    stop = true;
    flood.join();
    EXPECT_EQ(ticks, (std::vector<std::string>{"timer 3", "timer 3", "timer 7"}));
}

TEST_F(LoopFixture, WhileAMessageBoxWaitsSendsAndTimersAreStillHandled) {
    OpenDialogsOnMessages();
    loop.Post(Msg(1));
    loop.SetTimer(5, 100);
    ASSERT_TRUE(clock.AwaitWaiters(1));  // the nested pump sleeps until the timer
    // A worker's blocking report is answered while the box is open.
    auto report = std::async(std::launch::async, [&] { return loop.Send(Msg(2)); });
    EXPECT_EQ(report.get(), 7);
    ASSERT_TRUE(clock.AwaitWaiters(1));
    clock.Advance(100);
    EXPECT_EQ(loop.Send(Msg(3)), 7);  // a due timer goes before it
    Answer();
    loop.KillTimer(5);
    EXPECT_EQ(handler.Events(),
              (std::vector<std::string>{"dialog open", "message 2", "timer 5", "message 3", "dialog closed"}));
}

// A dialog that needs the station held still keeps the clock going, and only the clock.
TEST_F(LoopFixture, AHeldDialogRunsOnlyItsTimerAndLeavesMessagesQueued) {
    OpenDialogsOnMessages();
    loop.Post(Msg(4));
    loop.SetTimer(5, 100);
    loop.SetTimer(6, 100);
    ASSERT_TRUE(clock.AwaitWaiters(1));
    loop.Post(Msg(2));
    clock.Advance(100);
    ASSERT_EQ(handler.Events(2).size(), 2u);
    Answer();
    loop.Stop();
    EXPECT_EQ(handler.Events(),
              (std::vector<std::string>{"dialog open", "timer 5", "dialog closed", "timer 6", "message 2"}));
}

TEST_F(LoopFixture, StopReleasesWaitingSendersAndLaterSendsReturnZero) {
    std::promise<void> entered, release;
    auto releaseFuture = release.get_future().share();
    std::atomic<int> handled{0};
    handler.onMessage = [&](std::uint32_t msg, WParam) -> LResult {
        ++handled;
        if (msg == 1) {
            entered.set_value();
            releaseFuture.wait();
            return 42;
        }
        return 7;
    };
    auto first = std::async(std::launch::async, [&] { return loop.Send(Msg(1)); });
    entered.get_future().wait();
    auto second = std::async(std::launch::async, [&] { return loop.Send(Msg(2)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the second is queued
    auto stopping = std::async(std::launch::async, [&] { loop.Stop(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release.set_value();
    stopping.get();
    EXPECT_EQ(first.get(), 42);
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(handled.load(), 1);
    EXPECT_FALSE(loop.Running());
    EXPECT_EQ(loop.Send(Msg(3)), 0);
    EXPECT_EQ(handled.load(), 1);
}

// A handler that closes the station stops its own loop: the loop ends when the
// handler returns, and the owner joins it (the fixture's destructor).
TEST_F(LoopFixture, StopFromAHandlerEndsTheLoopAfterIt) {
    handler.onMessage = [&](std::uint32_t msg, WParam) -> LResult {
        if (msg == 1) loop.Stop();
        return 5;
    };
    loop.Post(Msg(2));
    EXPECT_EQ(loop.Send(Msg(1)), 5);
    EXPECT_FALSE(loop.Running());
    EXPECT_EQ(loop.Send(Msg(2)), 0);
}

}  // namespace
}  // namespace quorvel::app
