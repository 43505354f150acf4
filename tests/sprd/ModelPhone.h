#pragma once
// The simulated phone's device model behind a Unix socket on its own thread, for the
// engine's tests: re-enumeration, unplug and slow replies as the program does them, and a
// hook that may replace the bytes of any reply (garbage, a reply of the wrong type).

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engines/sprd/PhoneModel.h"

namespace quorvel::test {

class ModelPhone {
public:
    using Bytes = std::vector<std::uint8_t>;

    ModelPhone(std::string path, sprd::PhoneConfig config) : path_(std::move(path)), model_(std::move(config)) {}
    ~ModelPhone() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        Unlisten();
    }
    // reply: 1-based count of the phone's replies; `bytes` may be changed.
    std::function<void(int reply, Bytes& bytes)> tamper;

    void Start() {
        Listen();
        thread_ = std::thread([this] { Serve(); });
    }
    // After the engine is done: the model's partitions and report.
    template <typename F>
    auto With(F f) {
        std::lock_guard<std::mutex> lock(mutex_);
        return f(model_);
    }

private:
    void Listen() {
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        ::listen(listener_, 4);
    }
    void Unlisten() {
        if (listener_ >= 0) ::close(listener_);
        listener_ = -1;
        ::unlink(path_.c_str());
    }
    void Sleep(std::uint32_t ms) {
        for (std::uint32_t t = 0; t < ms && !stop_; t += 10) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    void Serve() {
        Bytes buf(1 << 16);
        int fd = -1;
        int replies = 0;
        while (!stop_) {
            if (fd < 0) {
                pollfd p{listener_, POLLIN, 0};
                if (::poll(&p, 1, 20) <= 0) continue;
                fd = ::accept(listener_, nullptr, nullptr);
                continue;
            }
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0) continue;
            const ssize_t n = ::read(fd, buf.data(), buf.size());
            std::lock_guard<std::mutex> lock(mutex_);
            if (n <= 0) {
                model_.HostClosed();
                ::close(fd);
                fd = -1;
                continue;
            }
            for (auto& a : model_.Receive({buf.data(), static_cast<std::size_t>(n)})) {
                if (a.kind == sprd::PhoneAction::SEND) {
                    if (tamper) tamper(++replies, a.bytes);
                    ::send(fd, a.bytes.data(), a.bytes.size(), MSG_NOSIGNAL);
                } else if (a.kind == sprd::PhoneAction::DELAY) {
                    Sleep(a.ms);
                } else {
                    // Re-enumeration, reset or unplug: the line goes; only re-enumeration comes back.
                    model_.HostClosed();
                    ::close(fd);
                    fd = -1;
                    if (a.kind != sprd::PhoneAction::REENUMERATE) {
                        Unlisten();
                        return;
                    }
                    Unlisten();
                    Sleep(a.ms);
                    Listen();
                    break;
                }
            }
        }
        if (fd >= 0) ::close(fd);
    }

    std::string path_;
    int listener_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex mutex_;
    sprd::PhoneModel model_;
};

}  // namespace quorvel::test
