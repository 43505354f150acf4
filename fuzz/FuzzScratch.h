#pragma once
// A scratch folder for fuzz targets that need files: made once per process under the
// temporary folder, removed when the process ends.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace quorvel::fuzz {

class Scratch {
public:
    Scratch() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvel-fuzz-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        path_ = pattern + "/";
    }
    ~Scratch() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    // The folder, with a trailing '/'.
    const std::string& Path() const { return path_; }

    std::string Write(const std::string& name, const std::uint8_t* data, std::size_t size) const {
        std::string file = path_ + name;
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
        return file;
    }

private:
    std::string path_;
};

}  // namespace quorvel::fuzz
