#pragma once
#include <string>

namespace quorvel::platform {

// The station's single-instance lock: an exclusive flock on a lock file, held for
// the life of this object and released by the kernel when the process dies, so a
// crashed station never blocks the next start.
class InstanceLock {
public:
    // Default lock file for the named lock: in $XDG_RUNTIME_DIR, else /tmp, per user.
    static std::string DefaultPath(const std::string& name);

    explicit InstanceLock(const std::string& path);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // False when another process holds the lock ("already exists").
    bool Acquired() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

}  // namespace quorvel::platform
