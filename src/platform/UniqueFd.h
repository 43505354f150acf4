#pragma once
// An owned file descriptor: closed once, by whoever owns it last. Move-only. Not
// thread-safe: one owner at a time, like the descriptor itself.

#include <unistd.h>

#include <cerrno>

#include <utility>

namespace quorvel::platform {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }

    // The descriptor, no longer owned.
    int release() { return std::exchange(fd_, -1); }
    // Closes what it held and takes `fd`. Keeps errno, so a failure read before an owner
    // goes out of scope is still the one the caller sees.
    void reset(int fd = -1) {
        if (fd_ >= 0 && fd_ != fd) {
            const int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }
    // Closes now, for callers that must know whether the close failed (a write's last
    // error can show only there). 0 when nothing was held.
    int close() {
        const int fd = release();
        return fd >= 0 ? ::close(fd) : 0;
    }

private:
    int fd_ = -1;
};

}  // namespace quorvel::platform
