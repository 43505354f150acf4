#include "sim/AutoBench.h"

#include <vector>

namespace quorvel::sim {

AutoBench::AutoBench(SimBench& bench, platform::Clock& clock, std::function<PhoneKind()> kindNow)
    : bench_(bench), clock_(clock), kindNow_(std::move(kindNow)) {}

AutoBench::~AutoBench() {
    Stop();
}

void AutoBench::Start() {
    std::lock_guard g(mutex_);
    if (thread_.joinable()) return;
    stopping_ = false;
    thread_ = std::thread([this] { Run(); });
}

void AutoBench::Stop() {
    {
        std::lock_guard g(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

engine::PhoneProfile AutoBench::ProfileFor(std::mt19937& random) {
    engine::PhoneProfile p;
    p.durationMs = 3000 + static_cast<platform::Millis>(random() % 4000);
    p.sizeBytes = (16ull + random() % 48) << 20;
    p.speedMBps = 8.0 + static_cast<double>(random() % 12);
    p.pass = random() % 10 != 0;
    if (!p.pass) p.failingStep = static_cast<int>(random() % 3);
    p.sprdPhase1Ms = 2000;
    return p;
}

void AutoBench::Run() {
    std::mt19937 random(20171);
    const int sockets = bench_.SocketCount();
    // When each socket next changes: plug when empty, unplug when taken.
    std::vector<platform::Millis> due(static_cast<std::size_t>(sockets));
    std::vector<bool> taken(static_cast<std::size_t>(sockets), false);
    const platform::Millis start = clock_.Now();
    for (int s = 0; s < sockets; ++s) due[static_cast<std::size_t>(s)] = start + 1500 + platform::Millis{700} * s;

    std::unique_lock lk(mutex_);
    while (!stopping_) {
        platform::Millis next = due[0];
        int socket = 0;
        for (int s = 1; s < sockets; ++s)
            if (due[static_cast<std::size_t>(s)] < next) next = due[static_cast<std::size_t>(s)], socket = s;
        if (clock_.WaitUntil(lk, wake_, next, [this] { return stopping_; })) break;
        lk.unlock();
        const auto i = static_cast<std::size_t>(socket);
        if (taken[i] && bench_.JobRunningAt(socket)) {
            // The operator waits for the result before pulling the phone.
            due[i] = clock_.Now() + 1000;
        } else if (taken[i]) {
            bench_.Unplug(socket);
            taken[i] = false;
            due[i] = clock_.Now() + 2000 + static_cast<platform::Millis>(random() % 3000);
        } else {
            const engine::PhoneProfile profile = ProfileFor(random);
            taken[i] = bench_.Plug(socket, kindNow_(), profile);
            // Long enough for the whole job, its phone switches and a binding queue of
            // sixteen sockets; a job still running then keeps its phone in.
            const double transferMs =
                profile.speedMBps > 0 ? static_cast<double>(profile.sizeBytes >> 20) / profile.speedMBps * 1000 : 0;
            due[i] = clock_.Now() + profile.durationMs + static_cast<platform::Millis>(transferMs) + 20000;
        }
        lk.lock();
    }
}

}  // namespace quorvel::sim
