#pragma once
// CBinPack: checks a PAC package and extracts every file of it into a fresh
// extraction folder, streaming the data through one 10 MiB buffer and reading the
// package strictly in sequence. Progress goes to the preparation window as message
// 6029 (sent, so the window has shown each step before extraction goes on). Each
// failure is kept (Problem) and handed to the operator's `tell` before it ends with
// notice (2, 0), whose handler closes the window: so the reason is read first.
//
// Made per use on one thread (the preparation thread): Open, Unpack once, Close.
// DeleteFolder may be called from any thread.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "packages/ChunkBuffer.h"
#include "packages/Crc16.h"
#include "packages/PacFormat.h"
#include "platform/UniqueFd.h"
#include "station/Messages.h"
#include "station/TellOperator.h"

namespace quorvel::platform {
class Clock;
}  // namespace quorvel::platform

namespace quorvel::packages {

inline constexpr std::size_t kPacChunkSize = std::size_t{10} * 1024 * 1024;

class CBinPack {
public:
    // `progressWindow` receives the notices; null sends none. It must outlive Unpack.
    // `tell` (may be empty) gets each failure's message on the calling thread.
    CBinPack(app::TellOperator tell, platform::Clock& clock, app::MessageWindow* progressWindow = nullptr);
    virtual ~CBinPack();
    CBinPack(const CBinPack&) = delete;
    CBinPack& operator=(const CBinPack&) = delete;

    // Opens the existing package for reading; 1 on success, else 0 with a Problem.
    int Open(const std::string& path);
    void Close();

    // Checks and extracts the open package into "<basePath>/_DownloadFiles<ticks>"
    // (basePath null or shorter than 2: into the temporary folder). `header` receives
    // the header; `entries` the file table with each extracted entry's FileName
    // replaced by its full path, and without as many entries from the end as there
    // were unnamed ones. 1 on success, 0 on failure; files already written stay.
    int Unpack(const char* basePath, PacHeader* header, std::vector<PacFileEntry>* entries);

    // The message of the failure of the last Open or Unpack; empty when it did not fail.
    const std::string& Problem() const { return problem_; }

    const std::string& GetOutputFolder() const { return outputFolder_; }
    // The file extracted for the last table entry; empty when that entry has no data.
    const std::string& GetLastFilePath() const { return lastFilePath_; }

    static std::uint16_t CalcCrc16(std::uint16_t crc, const void* data, std::size_t length) {
        return packages::CalcCrc16(crc, data, length);
    }

    // Deletes a folder tree; a symbolic link inside is removed, never followed.
    // Errors are ignored; returns 1, also for a null or missing path.
    static int DeleteFolder(const char* path);

    // The system temporary folder, with a trailing '/'; replaceable for tests.
    using TempFolderSource = std::function<std::optional<std::string>()>;
    void SetTempFolderSource(TempFolderSource source) { tempFolder_ = std::move(source); }
    static std::optional<std::string> SystemTempFolder();

private:
    bool UnpackSteps(const char* basePath, PacHeader& header, std::vector<PacFileEntry>& entries);
    bool ExtractEntry(PacFileEntry& entry, bool last, std::uint32_t packageSize);
    void Notice(app::Message notice);
    void Fail(const std::string& message);
    std::size_t ReadPackage(void* buffer, std::size_t length);

    app::TellOperator tell_;
    std::string problem_;
    platform::Clock& clock_;
    app::MessageWindow* window_;
    TempFolderSource tempFolder_;

    platform::UniqueFd fd_;
    std::string packagePath_;
    std::string outputFolder_;
    std::string lastFilePath_;

    // Working state of one Unpack.
    std::uint64_t position_ = 0;  // bytes of the package read so far
    bool crcOn_ = false;
    std::uint16_t dataCrc_ = 0;
    std::string prefix_;
    std::string diskMessage_;
    ChunkBuffer buffer_;
    platform::UniqueFd outFd_;
    std::unordered_set<std::string> taken_;            // names written in the folder
    std::unordered_map<std::string, int> nextSuffix_;  // per name: the next count to try
};

// Opens `path` for reading when it is a regular file: a FIFO, device or folder gives
// none at once, without blocking. The descriptor is blocking again and hinted sequential.
platform::UniqueFd OpenRegularFile(const std::string& path);

// The mount point of the file system that holds `path` (or its nearest existing parent):
// the "disk" named in the out-of-space message.
std::string DiskOf(const std::string& path);

}  // namespace quorvel::packages
