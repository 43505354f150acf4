#pragma once
#include <string>

#include "platform/UniqueFd.h"

namespace quorvel::platform {

// One single-instance lock: an exclusive flock on a lock file, held for the life of
// this object and released by the kernel when the process dies, so a crashed
// station never blocks the next start. The file may sit in a shared sticky folder
// (/run/lock, /tmp): it is created readable and writable by every user, opened
// without following links and without O_CREAT on an existing file, and locked
// even when only readable, so a file left by another user or a dead process
// locks as well as a fresh one.
class InstanceLock {
public:
    enum class Outcome { Acquired, Held, Failed };

    explicit InstanceLock(const std::string& path);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    bool Acquired() const { return outcome_ == Outcome::Acquired; }
    // Held: a live process holds the lock. Failed: the file could not be used (Error()).
    Outcome Result() const { return outcome_; }
    int Error() const { return error_; }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
    UniqueFd fd_;
    Outcome outcome_ = Outcome::Failed;
    int error_ = 0;
};

}  // namespace quorvel::platform
