#pragma once
// Shared pieces of the package tests: a window that records the extraction notices,
// and a CBinPack on a temporary folder with a recording console.

#include <mutex>
#include <utility>
#include <vector>

#include "app/ConsoleUi.h"
#include "app/Messages.h"
#include "platform/Clock.h"
#include "platform/StationLoop.h"

namespace quorvel::test {

class NoticeRecorder final : public platform::MessageWindow {
public:
    platform::LResult Send(std::uint32_t msg, platform::WParam w, platform::LParam l) override {
        std::lock_guard g(mutex_);
        if (msg == app::MSG_PAC_PROGRESS) notices_.emplace_back(w, l);
        return 0;
    }
    void Post(std::uint32_t msg, platform::WParam w, platform::LParam l) override { Send(msg, w, l); }
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}
    std::vector<std::pair<platform::WParam, platform::LParam>> Notices() const {
        std::lock_guard g(mutex_);
        return notices_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<platform::WParam, platform::LParam>> notices_;
};

}  // namespace quorvel::test
