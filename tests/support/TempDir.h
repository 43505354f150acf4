#pragma once
// A fresh folder for one test, removed with everything in it at the end.
#include <string>

namespace quorvel::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // The folder with a trailing '/'.
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + name; }
    void Write(const std::string& name, const std::string& contents) const;
    std::string Read(const std::string& name) const;

private:
    std::string path_;
};

}  // namespace quorvel::test
