#include "packages/BinPack.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>

#include "packages/Crc16.h"
#include "packages/PacInspect.h"
#include "packages/TextFormat.h"
#include "platform/AtomicFile.h"
#include "platform/Clock.h"
#include "station/Messages.h"
#include "station/Texts.h"

namespace quorvel::packages {
namespace fs = std::filesystem;
namespace texts = app::texts;

namespace {

constexpr std::size_t kCrcPieceBytes = std::size_t{1024} * 1024;

bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

bool WriteFully(int fd, const std::uint8_t* data, std::size_t length) {
    while (length > 0) {
        const ssize_t n = ::write(fd, data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

platform::UniqueFd OpenRegularFile(const std::string& path) {
    // O_NONBLOCK so that opening a FIFO does not wait for a writer.
    platform::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) return fd;
    struct stat st;
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || ::fcntl(fd.get(), F_SETFL, 0) != 0) return {};
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd;
}

CBinPack::CBinPack(app::TellOperator tell, platform::Clock& clock, app::MessageWindow* progressWindow)
    : tell_(std::move(tell)), clock_(clock), window_(progressWindow), tempFolder_(SystemTempFolder) {}

CBinPack::~CBinPack() = default;

int CBinPack::Open(const std::string& path) {
    Close();
    problem_.clear();
    packagePath_ = path;
    fd_ = OpenRegularFile(path);
    if (!fd_) {
        Fail(Format(texts::kPacCannotOpen, path.c_str()));
        return 0;
    }
    return 1;
}

void CBinPack::Close() {
    fd_.reset();
}

std::optional<std::string> CBinPack::SystemTempFolder() {
    std::error_code ec;
    const fs::path temp = fs::temp_directory_path(ec);
    if (ec || temp.empty()) return std::nullopt;
    std::string path = temp.string();
    if (path.back() != '/') path += '/';
    return path;
}

void CBinPack::Notice(app::Message notice) {
    if (window_) window_->Send(std::move(notice));
}

void CBinPack::Fail(const std::string& message) {
    problem_ = message;
    if (tell_) tell_(message);
}

std::size_t CBinPack::ReadPackage(void* buffer, std::size_t length) {
    const std::size_t done = platform::ReadFully(fd_.get(), buffer, length);
    position_ += done;
    return done;
}

int CBinPack::Unpack(const char* basePath, PacHeader* header, std::vector<PacFileEntry>* entries) {
    bool ok = false;
    problem_.clear();
    if (!entries || !header) {
        Fail(texts::kPacInvalidParams);
    } else if (fd_) {
        entries->clear();
        ok = UnpackSteps(basePath, *header, *entries);
    }
    outFd_.reset();
    buffer_.Release();
    Notice(app::PacEnded{ok});
    return ok ? 1 : 0;
}

bool CBinPack::UnpackSteps(const char* basePath, PacHeader& header, std::vector<PacFileEntry>& entries) {
    position_ = 0;
    dataCrc_ = 0;
    outputFolder_.clear();
    lastFilePath_.clear();
    struct stat st;
    if (::fstat(fd_.get(), &st) != 0 || ::lseek(fd_.get(), 0, SEEK_SET) != 0) {
        Fail(Format(texts::kPacCannotOpen, packagePath_.c_str()));
        return false;
    }
    const std::uint64_t fileSize = static_cast<std::uint64_t>(st.st_size);
    if (fileSize < kPacHeaderSize) {
        Fail(texts::kPacTooSmall);
        return false;
    }

    // A file that shrank since fstat leaves no byte of the header unset.
    header = PacHeader{};
    const std::size_t headerRead = ReadPackage(&header, kPacHeaderSize);
    crcOn_ = PacCrcOn(header);
    std::string message;
    if (!CheckPacHeader(header, headerRead, fileSize, message)) {
        Fail(message);
        return false;
    }

    // The extraction folder, named by the tick count printed as a signed value.
    const auto ticks = static_cast<std::int32_t>(clock_.Now());
    std::string diskBase;
    if (basePath && std::strlen(basePath) >= 2) {
        std::string base = basePath;
        while (!base.empty() && (base.back() == '/' || base.back() == '\\')) base.pop_back();
        outputFolder_ = Format("%s/_DownloadFiles%d", base.c_str(), ticks);
        diskBase = base.empty() ? "/" : base;
    } else {
        const auto temp = tempFolder_ ? tempFolder_() : std::nullopt;
        if (!temp || temp->empty()) {
            Fail(texts::kPacNoTempPath);
            return false;
        }
        std::string tempPath = *temp;
        if (tempPath.back() != '/') tempPath += '/';
        outputFolder_ = Format("%s_DownloadFiles%d", tempPath.c_str(), ticks);
        diskBase = tempPath;
    }
    diskMessage_ = Format(texts::kPacDiskFull, DiskOf(diskBase).c_str());

    if (Exists(outputFolder_)) DeleteFolder(outputFolder_.c_str());
    if (::mkdir(outputFolder_.c_str(), 0777) != 0 && errno != EEXIST) {
        Fail(Format(texts::kPacCannotCreateFolder, outputFolder_.c_str()));
        return false;
    }
    prefix_ = outputFolder_ + "/";

    // The table. A count the package cannot hold, or memory cannot, is refused before
    // any allocation.
    if (header.FileCount < 0) {
        Fail(texts::kPacOutOfMemory);
        return false;
    }
    const std::uint64_t count = static_cast<std::uint64_t>(header.FileCount);
    if (count * kPacEntrySize > fileSize - position_) {
        Fail(texts::kPacReadFailed);
        return false;
    }
    if (header.FileCount > kPacMaxFileCount) {
        Fail(Format(texts::kPacTooManyFiles, header.FileCount, kPacMaxFileCount));
        return false;
    }
    std::vector<PacFileEntry> table;
    try {
        table.resize(count);
    } catch (const std::bad_alloc&) {
        Fail(texts::kPacOutOfMemory);
        return false;
    }
    const std::size_t tableBytes = count * kPacEntrySize;
    if (ReadPackage(table.data(), tableBytes) < tableBytes) {
        Fail(texts::kPacReadFailed);
        return false;
    }
    // The buffer never needs to be larger than the largest file that will be copied.
    std::size_t largest = 0;
    for (const auto& e : table)
        if (e.FileSize < header.PackageSize) largest = std::max<std::size_t>(largest, e.FileSize);
    if (!buffer_.Allocate(std::min(largest, kPacChunkSize))) {
        Fail(texts::kPacOutOfMemory);
        return false;
    }
    if (crcOn_) dataCrc_ = CalcCrc16(dataCrc_, table.data(), tableBytes);

    // Every name that will receive data is checked before any file is written.
    if (!CheckPacFileNames(header, table, message)) {
        Fail(message);
        return false;
    }

    Notice(app::PacStarted{header.PackageSize});
    taken_.clear();
    nextSuffix_.clear();

    int unnamed = 0;
    for (std::size_t i = 0; i < table.size(); ++i) {
        PacFileEntry& entry = table[i];
        if (PacEntrySizeImpossible(header, entry)) {
            Fail(texts::kPacReadFailed);
            return false;
        }
        if (entry.FileSize == 0) continue;
        const bool last = i + 1 == table.size();
        if (!ExtractEntry(entry, last, header.PackageSize)) return false;
        if (entry.FileId[0] == 0) ++unnamed;
    }

    // Unnamed entries are taken to stand at the end of the table.
    header.FileCount -= unnamed;
    table.resize(static_cast<std::size_t>(header.FileCount));
    entries = std::move(table);

    if (crcOn_ && CalcCrc16(dataCrc_, &header.DataCrc, sizeof header.DataCrc) != 0) {
        Fail(texts::kPacCrcError);
        return false;
    }
    return true;
}

// A failure leaves the output file open; Unpack closes it.
bool CBinPack::ExtractEntry(PacFileEntry& entry, bool last, std::uint32_t packageSize) {
    std::string name;
    ReadField(entry.FileName, name);  // checked before extraction began
    // The first free one of name, name(1), name(2), ... Names this extraction wrote are
    // known without asking the file system, and each name resumes its count where it
    // stopped, so a package of one name repeated stays linear. O_EXCL finds anything
    // else in the way and never follows what was planted there.
    int& n = nextSuffix_[name];
    for (;;) {
        const std::string candidate = n == 0 ? name : Format("%s(%d)", name.c_str(), n);
        ++n;
        if (taken_.count(candidate)) continue;
        const std::string path = prefix_ + candidate;
        // The full path goes back into the entry, and on to the engine's 256-byte record.
        if (path.size() > 255 || !WriteField(entry.FileName, path)) {
            Fail(Format(texts::kPacPathTooLong, path.c_str()));
            return false;
        }
        if (last) lastFilePath_ = path;
        outFd_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0666));
        if (!outFd_ && errno == EEXIST) continue;
        if (!outFd_) {
            Fail(diskMessage_);
            return false;
        }
        taken_.insert(candidate);
        break;
    }
    ::posix_fadvise(outFd_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    // Room for the whole file is taken before its first byte: a full disk shows at once,
    // and the writes that follow skip the file system's per-page space reservation. The
    // size is kept so a dropped trailing NUL leaves no byte behind; file systems that
    // cannot reserve simply write as they go.
    if (::fallocate(outFd_.get(), FALLOC_FL_KEEP_SIZE, 0, entry.FileSize) != 0 &&
        (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) {
        Fail(diskMessage_);
        return false;
    }

    std::uint32_t remaining = entry.FileSize;
    while (remaining > 0) {
        Notice(app::PacPercent{static_cast<int>(position_ * 100 / packageSize)});
        const std::size_t chunk = remaining < kPacChunkSize ? remaining : kPacChunkSize;
        // A package cut short fails here, with or without CRCs. The chunk is read in
        // pieces and each piece enters the CRC while it is still in the cache.
        std::size_t got = 0;
        while (got < chunk) {
            const std::size_t piece = std::min(chunk - got, kCrcPieceBytes);
            const std::size_t n = ReadPackage(buffer_.data() + got, piece);
            if (crcOn_) dataCrc_ = CalcCrc16(dataCrc_, buffer_.data() + got, n);
            got += n;
            if (n < piece) break;
        }
        if (got < chunk) {
            Fail(texts::kPacReadFailed);
            return false;
        }
        std::size_t toWrite = chunk;
        // The configuration file's terminating NUL is not part of the file.
        if (last && remaining == chunk && buffer_[chunk - 1] == 0) --toWrite;
        const bool written = WriteFully(outFd_.get(), buffer_.data(), toWrite);
        if (!written) {
            Fail(diskMessage_);
            return false;
        }
        remaining -= static_cast<std::uint32_t>(chunk);
    }
    if (outFd_.close() != 0) {
        Fail(diskMessage_);
        return false;
    }
    return true;
}

int CBinPack::DeleteFolder(const char* path) {
    if (!path) return 1;
    std::error_code ec;
    const fs::path root(path);
    const auto status = fs::symlink_status(root, ec);
    if (ec || !fs::exists(status)) return 1;
    if (fs::is_symlink(status)) {
        fs::remove(root, ec);
        return 1;
    }
    if (!fs::is_directory(status)) return 1;
    for (fs::directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code entryEc;
        if (it->is_directory(entryEc) && !it->is_symlink(entryEc)) {
            DeleteFolder(it->path().c_str());
        } else {
            fs::remove(it->path(), entryEc);
        }
    }
    fs::remove(root, ec);
    return 1;
}

std::string DiskOf(const std::string& path) {
    std::error_code ec;
    fs::path p = fs::absolute(path.empty() ? fs::path(".") : fs::path(path), ec).lexically_normal();
    if (p.has_filename() == false && p != p.root_path()) p = p.parent_path();
    struct stat st;
    while (::stat(p.c_str(), &st) != 0 && p != p.root_path()) p = p.parent_path();
    for (;;) {
        if (p == p.root_path()) return p.string();
        const fs::path parent = p.parent_path();
        struct stat up;
        if (::stat(parent.c_str(), &up) != 0 || up.st_dev != st.st_dev) return p.string();
        p = parent;
    }
}

}  // namespace quorvel::packages
