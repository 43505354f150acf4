#pragma once
// The bench's automatic mode: phones arrive by themselves, so the station can be
// watched at work without a scenario. Each socket plugs a phone of the chosen package's
// platform, leaves it in for its job's time plus a pause, unplugs it, and after a short
// break plugs the next one. About one phone in ten is made to fail.
// Its own thread; Start and Stop from any one thread. Waits go through the clock.

#include <condition_variable>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "platform/Clock.h"
#include "sim/SimBench.h"

namespace quorvel::sim {

class AutoBench {
public:
    // `kindNow` says which phone to plug next (it follows the package chosen).
    AutoBench(SimBench& bench, platform::Clock& clock, std::function<PhoneKind()> kindNow);
    ~AutoBench();

    void Start();
    void Stop();

    // The profile of the n-th phone (pure, for tests): a few seconds of work, a random size.
    static engine::PhoneProfile ProfileFor(std::mt19937& random);

private:
    void Run();

    SimBench& bench_;
    platform::Clock& clock_;
    std::function<PhoneKind()> kindNow_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace quorvel::sim
