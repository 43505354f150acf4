#pragma once
// A small file system of the test's own (a tmpfs mounted on a fresh folder), to be
// filled up and freed again: the disk-full cases. Mounting needs root (or the mount
// capability); without it Ready() is false and Reason() says why, for GTEST_SKIP.
#include <string>

#include "support/TempDir.h"

namespace quorvel::test {

class SmallDisk {
public:
    explicit SmallDisk(const char* size = "2m");
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool Ready() const { return mounted_; }
    const std::string& Reason() const { return reason_; }
    // The mounted folder with a trailing '/'.
    const std::string& Path() const { return dir_.Path(); }
    // Takes every free byte with one file; Free gives them back.
    void Fill();
    void Free();

private:
    TempDir dir_;
    bool mounted_ = false;
    std::string reason_;
};

}  // namespace quorvel::test
