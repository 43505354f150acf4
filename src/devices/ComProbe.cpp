#include "devices/ComProbe.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

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

std::vector<int> HoldersOf(const std::string& procRoot, const std::string& node) {
    std::vector<int> holders;
    char real[PATH_MAX];
    if (!::realpath(node.c_str(), real)) return holders;
    const std::string wanted = real;
    const long self = static_cast<long>(::getpid());
    DIR* proc = ::opendir(procRoot.c_str());
    if (!proc) return holders;
    // readlink on each descriptor is what fuser does; it is the cheap part, so the
    // whole walk stays within a few milliseconds on a bench PC.
    char link[PATH_MAX];
    while (const dirent* p = ::readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(p->d_name, &end, 10);
        if (!end || *end != '\0' || pid <= 0 || pid == self) continue;
        const std::string fds = procRoot + "/" + p->d_name + "/fd";
        DIR* dir = ::opendir(fds.c_str());
        if (!dir) continue;  // gone, or not ours to look at
        while (const dirent* f = ::readdir(dir)) {
            if (f->d_name[0] == '.') continue;
            const ssize_t n = ::readlinkat(::dirfd(dir), f->d_name, link, sizeof link - 1);
            if (n <= 0 || static_cast<std::size_t>(n) != wanted.size() ||
                wanted.compare(0, wanted.size(), link, static_cast<std::size_t>(n)) != 0)
                continue;
            holders.push_back(static_cast<int>(pid));
            break;
        }
        ::closedir(dir);
    }
    ::closedir(proc);
    return holders;
}

bool SerialPort::Open(const std::string& node, int baud) {
    Close();
    error_ = ENOENT;
    if (node.empty()) return false;
    platform::UniqueFd owned(::open(node.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!owned) {
        error_ = errno;
        return false;
    }
    const int fd = owned.get();
    // Until we know the port is ours, nothing may touch it: no flush, no flags.
    // The advisory lock catches an opener in this process, /proc the others (as root,
    // their TIOCEXCL would not have kept us out).
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || !HoldersOf(procRoot_, node).empty()) {
        error_ = EBUSY;
        return false;
    }
    // TIOCEXCL keeps later openers out (root excepted).
    if (::ioctl(fd, TIOCEXCL) != 0 || ::tcflush(fd, TCIOFLUSH) != 0) {
        error_ = errno;
        ::ioctl(fd, TIOCNXCL);
        return false;
    }
    fd_ = std::move(owned);
    error_ = 0;
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
    if (!fd_) return true;
    // Nothing is pending on a port we only opened; a flush here could only hurt
    // someone who got in meanwhile (root can).
    ::ioctl(fd_.get(), TIOCNXCL);
    return fd_.close() == 0;
}

bool ComProbe::Probe(const std::string& friendlyName) {
    const std::string portName = PortNameOf(friendlyName);
    if (portName.size() < 3) return false;
    const int number = PortNumberOf(portName);
    SerialPort port(paths_.proc);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        // Asked anew each time: the node may appear only while we wait.
        const std::string node = nodeOf_(number);
        // A phone served through its USB node has no port to settle.
        if (IsUsbNode(node)) return true;
        if (port.Open(node, 115200)) {
            clock_.Sleep(50);
            if (!port.Close()) return false;
            clock_.Sleep(kSpacingMs);
            return true;
        }
        // EACCES may pass once udev has applied the rule: retried like the others,
        // but told once, as it rarely passes by itself.
        if ((port.Error() == EACCES || port.Error() == EPERM) && reported_.insert(node).second && noPermission_)
            noPermission_("no permission on " + node + ": is the udev rule installed?");
        clock_.Sleep(kSpacingMs);
    }
    port.Close();
    return false;
}

}  // namespace quorvel::devices
