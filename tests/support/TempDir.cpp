#include "support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace quorvel::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quorvel-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern + "/";
}

TempDir::~TempDir() {
    std::error_code ec;
    // Read-only folders made by a test must not stop the clean-up.
    for (auto& e : std::filesystem::recursive_directory_iterator(path_, ec))
        std::filesystem::permissions(e.path(), std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                     ec);
    std::filesystem::remove_all(path_, ec);
}

void TempDir::Write(const std::string& name, const std::string& contents) const {
    std::filesystem::create_directories(std::filesystem::path(File(name)).parent_path());
    std::ofstream(File(name), std::ios::binary) << contents;
}

std::string TempDir::Read(const std::string& name) const {
    std::ifstream in(File(name), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace quorvel::test
