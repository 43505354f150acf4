#include "platform/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace quorvel::platform {

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

bool ReadWholeFile(const std::string& path, std::string& contents) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(fd);
        return false;
    }
    contents.clear();
    char buf[16384];
    while (const std::size_t n = ReadFully(fd, buf, sizeof buf)) contents.append(buf, n);
    ::close(fd);
    return true;
}

bool ReplaceFileAtomically(const std::string& path, const std::string& contents) {
    static std::atomic<unsigned> counter{0};
    const std::string tmp = path + ".tmp" + std::to_string(::getpid()) + "." + std::to_string(counter++);
    mode_t mode = 0644;
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) mode = st.st_mode & 07777;
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) return false;
    const char* p = contents.data();
    std::size_t left = contents.size();
    bool ok = true;
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    ok = ok && ::fdatasync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok) ok = ::rename(tmp.c_str(), path.c_str()) == 0;
    if (!ok) ::unlink(tmp.c_str());
    return ok;
}

}  // namespace quorvel::platform
