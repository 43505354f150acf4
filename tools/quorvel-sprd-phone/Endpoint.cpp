#include "Endpoint.h"
#include "platform/ErrnoText.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

namespace quorvel::sprdphone {

Endpoint::~Endpoint() {
    Close();
}

bool Endpoint::Valid(const std::string& where) {
    return (where.rfind("unix:", 0) == 0 && where.size() > 5) || (where.rfind("pty:", 0) == 0 && where.size() > 4);
}

bool Endpoint::Open(std::string& error) {
    const std::string path = where_.substr(where_.find(':') + 1);
    ::unlink(path.c_str());
    if (!IsPty()) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (path.size() >= sizeof addr.sun_path) {
            error = "socket path too long: " + path;
            return false;
        }
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        listen_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!listen_.valid() || ::bind(listen_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(listen_.get(), 1) != 0) {
            error = "cannot listen on " + path + ": " + platform::ErrnoText(errno);
            Close();
            return false;
        }
        return true;
    }
    conn_.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!conn_.valid() || ::grantpt(conn_.get()) != 0 || ::unlockpt(conn_.get()) != 0) {
        error = std::string("cannot make a pseudo-terminal: ") + platform::ErrnoText(errno);
        Close();
        return false;
    }
    char slave[128];
    const bool named = ::ptsname_r(conn_.get(), slave, sizeof slave) == 0;
    heldSlave_.reset(named ? ::open(slave, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1);
    termios tio{};
    if (!heldSlave_.valid() || ::tcgetattr(heldSlave_.get(), &tio) != 0) {
        error = std::string("cannot open the pseudo-terminal's slave: ") + platform::ErrnoText(errno);
        Close();
        return false;
    }
    ::cfmakeraw(&tio);
    ::tcsetattr(heldSlave_.get(), TCSANOW, &tio);
    if (::symlink(slave, path.c_str()) != 0) {
        error = "cannot link " + path + ": " + platform::ErrnoText(errno);
        Close();
        return false;
    }
    return true;
}

void Endpoint::Close() {
    // Hanging up a pseudo-terminal discards what the host has not read yet (the reply that
    // came just before a re-enumeration): give the host a moment to take it. The kernel has
    // no event for "read by the other side", so this looks, boundedly; the first look waits
    // a slice because written bytes reach the slave's queue a moment later.
    for (int waited = 0; heldSlave_.valid() && waited < 500 && Pause(10); waited += 10) {
        int pending = 0;
        if (::ioctl(heldSlave_.get(), FIONREAD, &pending) != 0 || pending == 0) break;
    }
    conn_.reset();
    listen_.reset();
    heldSlave_.reset();
    ::unlink(where_.substr(where_.find(':') + 1).c_str());
}

bool Endpoint::Stopped() const {
    pollfd p{stopFd_, POLLIN, 0};
    return ::poll(&p, 1, 0) > 0;
}

bool Endpoint::Pause(int ms) {
    pollfd p{stopFd_, POLLIN, 0};
    return ::poll(&p, 1, ms) == 0;
}

bool Endpoint::Accept(int timeoutMs) {
    if (IsPty()) return conn_.valid();
    if (conn_.valid()) return true;
    pollfd p[2] = {{listen_.get(), POLLIN, 0}, {stopFd_, POLLIN, 0}};
    while (true) {
        const int n = ::poll(p, 2, timeoutMs);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || (p[1].revents & POLLIN)) return false;
        conn_.reset(::accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (conn_.valid()) return true;
        if (errno != EINTR && errno != ECONNABORTED) return false;
    }
}

void Endpoint::Hangup() {
    if (IsPty() || !conn_.valid()) return;
    conn_.reset();
}

long Endpoint::Read(std::span<std::uint8_t> buf, int timeoutMs) {
    pollfd p[2] = {{conn_.get(), POLLIN, 0}, {stopFd_, POLLIN, 0}};
    while (true) {
        const int n = ::poll(p, 2, timeoutMs);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || (p[1].revents & POLLIN)) return -1;
        const ssize_t got = ::read(conn_.get(), buf.data(), buf.size());
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        return got < 0 ? 0 : got;
    }
}

bool Endpoint::Write(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        pollfd p[2] = {{conn_.get(), POLLOUT, 0}, {stopFd_, POLLIN, 0}};
        const int n = ::poll(p, 2, -1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || (p[1].revents & POLLIN)) return false;
        const ssize_t put = ::send(conn_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (put < 0 && errno == ENOTSOCK) {
            const ssize_t w = ::write(conn_.get(), bytes.data(), bytes.size());
            if (w < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (w < 0) return false;
            bytes = bytes.subspan(static_cast<std::size_t>(w));
            continue;
        }
        if (put < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (put < 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(put));
    }
    return true;
}

}  // namespace quorvel::sprdphone
