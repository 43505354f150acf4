#include "packages/PackageHousekeeping.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cctype>
#include <filesystem>
#include <string_view>

#include "packages/BinPack.h"
#include "platform/Clock.h"

namespace quorvel::packages {
namespace fs = std::filesystem;

namespace {

// Wildcards match as the station's home platform matches them: ignoring ASCII case.
bool EqualNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const auto x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
        if (std::tolower(x) != std::tolower(y)) return false;
    }
    return true;
}

}  // namespace

bool MatchesPrefixNoCase(std::string_view name, std::string_view prefix) {
    return name.size() >= prefix.size() && EqualNoCase(name.substr(0, prefix.size()), prefix);
}

bool MatchesSuffixNoCase(std::string_view name, std::string_view suffix) {
    return name.size() >= suffix.size() && EqualNoCase(name.substr(name.size() - suffix.size()), suffix);
}

std::int64_t PackageHousekeeping::AgeInDays(const std::string& path) const {
    struct statx sx;
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_CTIME, &sx) != 0) return -1;
    const std::int64_t created = (sx.stx_mask & STATX_BTIME) ? sx.stx_btime.tv_sec : sx.stx_ctime.tv_sec;
    return (clock_.WallSeconds() - created) / 86400;
}

void PackageHousekeeping::DeleteOldTempFolders(const std::string& tempFolder) const {
    std::error_code ec;
    for (fs::directory_iterator it(tempFolder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code entryEc;
        if (!it->is_directory(entryEc) || it->is_symlink(entryEc)) continue;
        if (!MatchesPrefixNoCase(it->path().filename().string(), "_DownloadFiles")) continue;
        if (AgeInDays(it->path().string()) >= kTempFolderDays) CBinPack::DeleteFolder(it->path().c_str());
    }
}

void PackageHousekeeping::DeleteOldImageStoreFiles(const std::string& imgstoreFolder) const {
    std::error_code ec;
    for (fs::directory_iterator it(imgstoreFolder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code entryEc;
        if (it->is_directory(entryEc)) continue;
        const std::string name = it->path().filename().string();
        if (!MatchesSuffixNoCase(name, ".bin")) continue;
        if (AgeInDays(it->path().string()) >= kImageStoreDays) fs::remove(it->path(), entryEc);
    }
}

namespace {

void MakeWritable(const fs::path& path) {
    std::error_code ec;
    fs::permissions(path, fs::perms::owner_write, fs::perm_options::add | fs::perm_options::nofollow, ec);
}

void EmptyTree(const fs::path& folder) {
    MakeWritable(folder);
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code entryEc;
        if (it->is_directory(entryEc) && !it->is_symlink(entryEc)) {
            EmptyTree(it->path());
            fs::remove(it->path(), entryEc);
        } else {
            if (!it->is_symlink(entryEc)) MakeWritable(it->path());
            fs::remove(it->path(), entryEc);
        }
    }
}

}  // namespace

void PackageHousekeeping::EmptyFolder(const std::string& folder) {
    std::error_code ec;
    const auto status = fs::symlink_status(folder, ec);
    if (!ec && fs::is_directory(status)) EmptyTree(folder);
    fs::create_directories(folder, ec);
}

void PackageHousekeeping::DeleteRecordedFolders(std::vector<std::string>& folders) {
    for (const auto& folder : folders)
        if (!folder.empty()) CBinPack::DeleteFolder(folder.c_str());
    folders.clear();
}

}  // namespace quorvel::packages
