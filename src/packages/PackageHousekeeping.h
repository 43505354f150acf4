#pragma once
// Removal of what earlier package loads left behind: old temporary extraction
// folders, old image-store files, the contents of ImageFiles, and the extraction
// folders of a failed load. Symbolic links are removed, never followed, so nothing
// outside these folders is touched. Runs on the preparation thread.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorvel::platform {
class Clock;
}

namespace quorvel::packages {

class PackageHousekeeping {
public:
    static constexpr int kTempFolderDays = 1;
    static constexpr int kImageStoreDays = 7;

    // `clock` gives "now" (its wall seconds) for the age rules.
    explicit PackageHousekeeping(platform::Clock& clock) : clock_(clock) {}

    // Rule 1: folders "_DownloadFiles*" in `tempFolder` at least one whole day old.
    // Both rules' wildcards ignore letter case.
    void DeleteOldTempFolders(const std::string& tempFolder) const;
    // Rule 2: "*.bin" files (not folders) in `imgstoreFolder` at least seven whole days old.
    void DeleteOldImageStoreFiles(const std::string& imgstoreFolder) const;
    // Rule 3: everything below `folder` made writable and deleted; the folder itself
    // is kept (made writable) and created again, parent by parent, where missing.
    static void EmptyFolder(const std::string& folder);
    // Rule 4: every recorded extraction folder deleted, and the record cleared.
    static void DeleteRecordedFolders(std::vector<std::string>& folders);

    // Whole days (of 86,400 s, toward zero) since the creation of `path`: its birth
    // time where the file system keeps one, else its change time. -1 when unreadable.
    std::int64_t AgeInDays(const std::string& path) const;

private:
    platform::Clock& clock_;
};

// "prefix*" and "*suffix" wildcards, ignoring ASCII letter case.
bool MatchesPrefixNoCase(std::string_view name, std::string_view prefix);
bool MatchesSuffixNoCase(std::string_view name, std::string_view suffix);

}  // namespace quorvel::packages
