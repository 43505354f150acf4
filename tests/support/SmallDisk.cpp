#include "support/SmallDisk.h"
#include "platform/ErrnoText.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace quorvel::test {

namespace {
constexpr const char* kFiller = ".filler";
}

SmallDisk::SmallDisk(const char* size) {
    const std::string options = std::string("size=") + size;
    if (::mount("tmpfs", dir_.Path().c_str(), "tmpfs", 0, options.c_str()) == 0)
        mounted_ = true;
    else
        reason_ = std::string("cannot mount a small tmpfs for the disk-full cases (") + platform::ErrnoText(errno) +
                  "); they need root or the mount capability";
}

SmallDisk::~SmallDisk() {
    // Lazily, so a descriptor a failing test left open cannot keep the mount.
    if (mounted_) ::umount2(dir_.Path().c_str(), MNT_DETACH);
}

void SmallDisk::Fill() {
    const int fd = ::open((Path() + kFiller).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const std::vector<char> block(4096, 'x');
    for (std::size_t size = block.size(); size > 0;) {
        if (::write(fd, block.data(), size) < 0) size /= 2;  // down to the last byte
    }
    ::close(fd);
}

void SmallDisk::Free() {
    ::unlink((Path() + kFiller).c_str());
}

}  // namespace quorvel::test
