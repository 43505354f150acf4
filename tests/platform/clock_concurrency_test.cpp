#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/Clock.h"

namespace quorvel::platform {
namespace {

TEST(ManualClockTest, WaitEndsWhenNotifiedOrAtItsDeadline) {
    for (const bool notify : {true, false}) {
        SCOPED_TRACE(notify ? "notified" : "timed out");
        ManualClock clock;
        std::mutex m;
        std::condition_variable cv;
        bool ready = false, result = !notify;
        std::thread waiter([&] {
            std::unique_lock lk(m);
            result = clock.WaitFor(lk, cv, 300, [&] { return ready; });
        });
        ASSERT_TRUE(clock.AwaitWaiters(1));
        if (notify) {
            std::lock_guard g(m);
            ready = true;
            cv.notify_all();
        } else {
            EXPECT_TRUE(clock.AdvanceToNextDeadline());
        }
        waiter.join();
        EXPECT_EQ(result, notify);
        EXPECT_EQ(clock.Now(), notify ? 0 : 300);
        EXPECT_FALSE(clock.AdvanceToNextDeadline()) << "no waiter is left";
    }
}

// Each sleep ends only when virtual time reaches its deadline, and in deadline order.
TEST(ManualClockTest, ManySleepersWakeInDeadlineOrder) {
    ManualClock clock(1000);
    std::mutex m;
    std::condition_variable changed;
    std::vector<int> order;
    std::vector<std::thread> threads;
    for (int i = 5; i >= 1; --i)
        threads.emplace_back([&, i] {
            clock.Sleep(i * 100 + 4999);
            std::lock_guard g(m);
            order.push_back(i);
            changed.notify_all();
        });
    ASSERT_TRUE(clock.AwaitWaiters(5));
    for (int step = 1; step <= 5; ++step) {
        clock.AdvanceTo(step * 100 + 5998);
        {
            std::lock_guard g(m);
            EXPECT_EQ(static_cast<int>(order.size()), step - 1) << "woke before its deadline";
        }
        clock.Advance(1);
        // Wait until that sleeper has left before moving on.
        std::unique_lock lk(m);
        ASSERT_TRUE(
            changed.wait_for(lk, std::chrono::seconds(5), [&] { return static_cast<int>(order.size()) == step; }));
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(clock.Now(), 6499);
}

TEST(ScaledClockTest, SleepPassesItsTimeOnTheScaledClock) {
    ScaledClock clock(1000);
    const Millis before = clock.Now();
    clock.Sleep(5000);
    EXPECT_GE(clock.Now() - before, 5000);
}

}  // namespace
}  // namespace quorvel::platform
