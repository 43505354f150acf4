#include "engines/sprd/FdTransport.h"
#include "platform/ErrnoText.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

namespace quorvel::sprd {
namespace {

long long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

FdTransport::~FdTransport() {
    Close();
}

void FdTransport::Close() {
    fd_.reset();
}

bool FdTransport::TryOpen(std::string& error) {
    Close();
    if (kind_ == UNIX) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (path_.size() >= sizeof addr.sun_path) {
            error = "socket path too long: " + path_;
            return false;
        }
        std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
        fd_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!fd_.valid() || ::connect(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            error = "cannot connect to " + path_ + ": " + platform::ErrnoText(errno);
            Close();
            return false;
        }
        return true;
    }
    fd_.reset(::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!fd_.valid()) {
        error = "cannot open " + path_ + ": " + platform::ErrnoText(errno) +
                (errno == EACCES ? " (add the operator to the group that owns it, for example dialout)" : "");
        return false;
    }
    termios t{};
    if (::tcgetattr(fd_.get(), &t) == 0) {
        ::cfmakeraw(&t);
        ::cfsetispeed(&t, B115200);
        ::cfsetospeed(&t, B115200);
        t.c_cflag |= CLOCAL | CREAD;
        t.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB);
        ::tcsetattr(fd_.get(), TCSANOW, &t);
    }
    return true;
}

bool FdTransport::Open(int waitMs, std::string& error) {
    const long long deadline = NowMs() + waitMs;
    for (;;) {
        if (TryOpen(error)) return true;
        if (NowMs() >= deadline) return false;
        // The phone's listener may not be there yet: look again shortly.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

bool FdTransport::Reopen(int timeoutMs, std::string& error) {
    return Open(timeoutMs, error);
}

bool FdTransport::Write(std::span<const std::uint8_t> bytes) {
    std::size_t done = 0;
    while (fd_.valid() && done < bytes.size()) {
        const ssize_t n = kind_ == UNIX ? ::send(fd_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL)
                                        : ::write(fd_.get(), bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && errno == EAGAIN) {
            pollfd p{fd_.get(), POLLOUT, 0};
            ::poll(&p, 1, 1000);
        } else {
            Close();
            return false;
        }
    }
    return fd_.valid();
}

long FdTransport::Read(std::span<std::uint8_t> buffer, int timeoutMs) {
    if (!fd_.valid()) return -1;
    const long long deadline = NowMs() + timeoutMs;
    for (;;) {
        pollfd p{fd_.get(), POLLIN, 0};
        const long long left = deadline - NowMs();
        const int r = ::poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
        if (r < 0 && errno == EINTR) continue;
        if (r == 0) return 0;
        if (r < 0) {
            Close();
            return -1;
        }
        const ssize_t n = ::read(fd_.get(), buffer.data(), buffer.size());
        if (n > 0) return n;
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        Close();  // end of stream: unplugged, or re-enumerating
        return -1;
    }
}

}  // namespace quorvel::sprd
