#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
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
    void OnTimer(int id) override {
        std::lock_guard g(mutex);
        ticks.push_back(id);
    }
    std::vector<int> Ticks() {
        std::lock_guard g(mutex);
        return ticks;
    }
    std::function<LResult(std::uint32_t, WParam)> onMessage;
    std::mutex mutex;
    std::vector<std::pair<std::uint32_t, WParam>> messages;
    std::vector<int> ticks;
};

struct LoopFixture : ::testing::Test {
    LoopFixture() {
        loop.SetHandler(&handler);
        loop.Start();
    }
    ManualClock clock;
    Recorder handler;
    StationLoop loop{clock};
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
    auto awaitTicks = [&](std::size_t n) {
        for (int i = 0; i < 2000 && handler.Ticks().size() < n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return handler.Ticks();
    };
    loop.SetTimer(3, 1000);
    ASSERT_TRUE(clock.AwaitWaiters(1));
    clock.Advance(999);
    loop.Call([] {});
    EXPECT_TRUE(handler.Ticks().empty());
    clock.Advance(1);
    EXPECT_EQ(awaitTicks(1), std::vector<int>{3});
    clock.Advance(1000);
    EXPECT_EQ(awaitTicks(2), (std::vector<int>{3, 3}));
    loop.KillTimer(3);
    loop.Call([] {});
    clock.Advance(5000);
    loop.Call([] {});
    EXPECT_EQ(handler.Ticks().size(), 2u);

    loop.SetTimer(7, 10);
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop) loop.Post(Msg(1));
    });
    clock.Advance(10);
    const auto ticks = awaitTicks(3);
    stop = true;
    flood.join();
    EXPECT_EQ(ticks, (std::vector<int>{3, 3, 7}));
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
