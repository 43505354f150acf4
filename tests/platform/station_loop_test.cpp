#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/StationLoop.h"

namespace quorvel::platform {
namespace {

class Recorder final : public MessageHandler {
public:
    LResult HandleMessage(std::uint32_t msg, WParam w, LParam l) override {
        if (onMessage) return onMessage(msg, w, l);
        std::lock_guard g(mutex);
        messages.push_back({msg, w});
        return static_cast<LResult>(w) * 2 + l;
    }
    void OnTimer(int id) override {
        std::lock_guard g(mutex);
        ticks.push_back(id);
    }
    std::vector<int> Ticks() {
        std::lock_guard g(mutex);
        return ticks;
    }
    std::function<LResult(std::uint32_t, WParam, LParam)> onMessage;
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
                    EXPECT_EQ(loop.Send(100 + s, i, 1), static_cast<LResult>(i * 2 + 1));
                else
                    loop.Post(100 + s, i, 0);
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
    handler.onMessage = [&](std::uint32_t msg, WParam, LParam) -> LResult {
        order.push_back(msg);
        if (msg == 1) {
            EXPECT_TRUE(loop.IsStationThread());
            const LResult inner = loop.Send(2, 0, 0);
            order.push_back(99);
            return inner + 10;
        }
        return 5;
    };
    EXPECT_EQ(loop.Send(1, 0, 0), 15);
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
        while (!stop) loop.Post(1, 0, 0);
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
    handler.onMessage = [&](std::uint32_t msg, WParam, LParam) -> LResult {
        ++handled;
        if (msg == 1) {
            entered.set_value();
            releaseFuture.wait();
            return 42;
        }
        return 7;
    };
    auto first = std::async(std::launch::async, [&] { return loop.Send(1, 0, 0); });
    entered.get_future().wait();
    auto second = std::async(std::launch::async, [&] { return loop.Send(2, 0, 0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the second is queued
    auto stopping = std::async(std::launch::async, [&] { loop.Stop(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release.set_value();
    stopping.get();
    EXPECT_EQ(first.get(), 42);
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(handled.load(), 1);
    EXPECT_FALSE(loop.Running());
    EXPECT_EQ(loop.Send(3, 0, 0), 0);
    EXPECT_EQ(handled.load(), 1);
}

}  // namespace
}  // namespace quorvel::platform
