#include "platform/AtomicFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/UniqueFd.h"

namespace quorvel::platform {

namespace {
// Temporary files are named <file>.tmp<pid>.<n>.
constexpr char kTempMark[] = ".tmp";

// The writer's pid when `name` is one of our temporary files, else 0.
pid_t TemporaryOwner(const std::string& name) {
    const auto mark = name.rfind(kTempMark);
    if (mark == std::string::npos || mark == 0) return 0;
    const char* p = name.c_str() + mark + sizeof kTempMark - 1;
    char* end = nullptr;
    const long pid = std::strtol(p, &end, 10);
    if (end == p || *end != '.' || pid <= 0) return 0;
    const char* n = end + 1;
    std::strtoul(n, &end, 10);
    if (end == n || *end != '\0') return 0;
    return static_cast<pid_t>(pid);
}
}  // namespace

std::size_t ReadFully(int fd, void* buffer, std::size_t length) {
    auto* p = static_cast<char*>(buffer);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = ::read(fd, p + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    return done;
}

bool ReadWholeFile(const std::string& path, std::string& contents, struct stat* st) {
    // Only a regular file is opened (a device may act on its open), and without blocking,
    // so a FIFO put in the file's place after the check cannot hang the reader either.
    struct stat before {};
    if (::stat(path.c_str(), &before) == 0 && !S_ISREG(before.st_mode)) {
        errno = S_ISDIR(before.st_mode) ? EISDIR : EINVAL;
        return false;
    }
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd) return false;
    struct stat own {};
    if (!st) st = &own;
    if (::fstat(fd.get(), st) != 0 || !S_ISREG(st->st_mode)) {
        errno = S_ISDIR(st->st_mode) ? EISDIR : EINVAL;
        return false;
    }
    contents.clear();
    contents.reserve(static_cast<std::size_t>(st->st_size));
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        contents.append(buf, static_cast<std::size_t>(n));
    }
    return true;
}

bool ReplaceFileAtomically(const std::string& path, const std::string& contents, struct stat* written) {
    static std::atomic<unsigned> counter{0};
    mode_t mode = 0644;
    // The rename would replace a file we may not write; refuse as a write to it would.
    if (const UniqueFd probe(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)); probe) {
        struct stat st {};
        const bool regular = ::fstat(probe.get(), &st) == 0 && S_ISREG(st.st_mode);
        if (!regular) {
            errno = EINVAL;
            return false;
        }
        mode = st.st_mode & 07777;
    } else if (errno != ENOENT) {
        return false;
    }
    const std::string tmp = path + kTempMark + std::to_string(::getpid()) + "." + std::to_string(counter++);
    UniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!fd) return false;
    const char* p = contents.data();
    std::size_t left = contents.size();
    bool ok = true;
    while (left > 0) {
        ssize_t n = ::write(fd.get(), p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            ok = false;
            break;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    ok = ok && ::fdatasync(fd.get()) == 0;
    struct stat st {};
    ok = ok && ::fstat(fd.get(), &st) == 0;
    int error = errno;
    if (fd.close() != 0 && ok) {
        ok = false;
        error = errno;
    }
    if (ok && ::rename(tmp.c_str(), path.c_str()) != 0) {
        ok = false;
        error = errno;
    }
    if (!ok) {
        ::unlink(tmp.c_str());
        errno = error;
        return false;
    }
    if (written) *written = st;
    return true;
}

int RemoveStaleTemporaries(const std::string& folder) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return 0;
    int removed = 0;
    const std::string base = folder.empty() || folder.back() == '/' ? folder : folder + "/";
    while (const dirent* e = ::readdir(dir)) {
        const pid_t owner = TemporaryOwner(e->d_name);
        if (owner == 0 || owner == ::getpid()) continue;
        if (::kill(owner, 0) == 0 || errno != ESRCH) continue;  // its writer may still rename it
        if (::unlink((base + e->d_name).c_str()) == 0) ++removed;
    }
    ::closedir(dir);
    return removed;
}

}  // namespace quorvel::platform
