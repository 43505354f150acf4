#include "devices/ComProbe.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "devices/DeviceText.h"

namespace quorvel::devices {

namespace {
speed_t SpeedOf(int baud) {
    switch (baud) {
        case 9600: return B9600;
        case 57600: return B57600;
        case 230400: return B230400;
        case 460800: return B460800;
        case 921600: return B921600;
        default: return B115200;
    }
}
}  // namespace

bool SerialPort::Open(const std::string& node, int baud) {
    Close();
    if (node.empty()) return false;
    const int fd = ::open(node.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    // TIOCEXCL keeps later openers out (root excepted); the advisory lock also tells
    // us about an opener that came first, as the original no-sharing open did.
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::ioctl(fd, TIOCEXCL) != 0) {
        ::close(fd);
        return false;
    }
    if (::tcflush(fd, TCIOFLUSH) != 0) {
        ::close(fd);
        return false;
    }
    fd_ = fd;
    // Settings failures are not fatal: a port that opens is ready.
    termios tio{};
    if (::tcgetattr(fd, &tio) == 0) {
        ::cfmakeraw(&tio);
        ::cfsetispeed(&tio, SpeedOf(baud));
        ::cfsetospeed(&tio, SpeedOf(baud));
        tio.c_cflag &= ~static_cast<tcflag_t>(PARENB | CSTOPB | CSIZE);
        tio.c_cflag |= CS8 | CLOCAL | CREAD;
        tio.c_cc[VMIN] = 0;
        tio.c_cc[VTIME] = 7;  // 700 ms, the closest to the read total constant
        ::tcsetattr(fd, TCSANOW, &tio);
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return true;
}

bool SerialPort::Close() {
    if (fd_ < 0) return true;
    ::tcflush(fd_, TCIOFLUSH);
    ::ioctl(fd_, TIOCNXCL);
    const int rc = ::close(fd_);
    fd_ = -1;
    return rc == 0;
}

bool ComProbe::Probe(const std::string& friendlyName) {
    const std::string portName = PortNameOf(friendlyName);
    if (portName.size() < 3) return false;
    const int number = PortNumberOf(portName);
    SerialPort port;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        // Asked anew each time: the node may appear only while we wait.
        if (port.Open(nodeOf_(number), 115200)) {
            clock_.Sleep(50);
            if (!port.Close()) return false;
            clock_.Sleep(kSpacingMs);
            return true;
        }
        clock_.Sleep(kSpacingMs);
    }
    port.Close();
    return false;
}

}  // namespace quorvel::devices
