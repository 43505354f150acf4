#include "platform/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace quorvel::platform {

namespace {
constexpr int kOpenFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// Opens an existing lock file for locking (read access is enough for flock), else
// creates it for everybody. O_CREAT is never used on an existing file, which a
// sticky folder would refuse for a file of another user.
UniqueFd OpenLockFile(const std::string& path, int& error) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        UniqueFd fd(::open(path.c_str(), O_RDWR | kOpenFlags));
        if (!fd && errno == EACCES) fd.reset(::open(path.c_str(), O_RDONLY | kOpenFlags));
        if (fd) {
            struct stat st {};
            if (::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode)) return fd;
            error = EINVAL;
            return {};
        }
        if (errno != ENOENT) break;
        fd.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | kOpenFlags, 0666));
        if (fd) {
            ::fchmod(fd.get(), 0666);  // past the umask, so other users can lock it too
            return fd;
        }
        if (errno != EEXIST) break;  // else another station created it just now
    }
    error = errno;
    return {};
}
}  // namespace

InstanceLock::InstanceLock(const std::string& path) : path_(path) {
    UniqueFd fd = OpenLockFile(path, error_);
    if (!fd) return;
    int rc;
    while ((rc = ::flock(fd.get(), LOCK_EX | LOCK_NB)) != 0 && errno == EINTR) {
    }
    if (rc != 0) {
        error_ = errno;
        outcome_ = errno == EWOULDBLOCK ? Outcome::Held : Outcome::Failed;
        return;
    }
    fd_ = std::move(fd);
    outcome_ = Outcome::Acquired;
}

InstanceLock::~InstanceLock() = default;

}  // namespace quorvel::platform
