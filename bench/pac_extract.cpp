// Extraction speed against a plain sequential copy of the same bytes on the same disk,
// both in one run, and the extraction's peak memory (max RSS of a child that only
// extracts). Usage: pac_extract [megabytes=1024] [folder=/tmp] [rounds=9]
// Target: extraction at 90 % or more of the copy's speed; peak memory under 32 MiB.
// Many small entries: pac_extract entries [count=10000] [folder=/tmp] [bytes per entry=2048]
// times packages of one name repeated and of distinct names against a plain copy.
// Target: under 1 s beyond the copy for 10,000 entries, duplicates or not.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "console/ConsoleUi.h"
#include "packages/BinPack.h"
#include "packages/Crc16.h"
#include "packages/PacFormat.h"
#include "platform/Clock.h"

using namespace quorvel;
using namespace quorvel::packages;
namespace fs = std::filesystem;

namespace {

void Fill(std::vector<std::uint8_t>& buffer, std::uint64_t& state) {
    auto* words = reinterpret_cast<std::uint64_t*>(buffer.data());
    for (std::size_t i = 0; i < buffer.size() / 8; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        words[i] = state;
    }
}

// Eight images of equal size plus a small configuration file, with both CRCs.
void WritePackage(const std::string& path, std::uint64_t totalBytes) {
    const int images = 8;
    const std::uint32_t imageSize = static_cast<std::uint32_t>(totalBytes / images);
    std::vector<PacFileEntry> table(images + 1);
    std::memset(table.data(), 0, table.size() * sizeof(PacFileEntry));
    for (int i = 0; i < images; ++i) {
        WriteField(table[static_cast<std::size_t>(i)].FileId, "IMAGE" + std::to_string(i));
        WriteField(table[static_cast<std::size_t>(i)].FileName, "image" + std::to_string(i) + ".img");
        table[static_cast<std::size_t>(i)].FileSize = imageSize;
        table[static_cast<std::size_t>(i)].CheckFlag = 1;
    }
    const std::string config = "<config/>\n";
    WriteField(table.back().FileName, "config.xml");
    table.back().FileSize = static_cast<std::uint32_t>(config.size());

    PacHeader header = EmptyPacHeader();
    if (std::getenv("QUORVEL_BENCH_NO_CRC")) header.Magic = 0;  // to see what the CRC costs
    WriteField(header.Version, kPacVersion);
    WriteField(header.ProductName, "Bench");
    header.FileCount = static_cast<std::int32_t>(table.size());
    const std::uint64_t size =
        sizeof header + table.size() * sizeof(PacFileEntry) + std::uint64_t{imageSize} * images + config.size();
    header.PackageSize = static_cast<std::uint32_t>(size);

    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::write(fd, &header, sizeof header) != sizeof header) std::exit(3);
    std::uint16_t crc = CalcCrc16(0, table.data(), table.size() * sizeof(PacFileEntry));
    if (::write(fd, table.data(), table.size() * sizeof(PacFileEntry)) < 0) std::exit(3);
    std::vector<std::uint8_t> chunk(kPacChunkSize);
    std::uint64_t state = 88172645463325252ull;
    for (int i = 0; i < images; ++i) {
        for (std::uint64_t left = imageSize; left > 0;) {
            const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(left, chunk.size()));
            Fill(chunk, state);
            crc = CalcCrc16(crc, chunk.data(), n);
            if (::write(fd, chunk.data(), n) != static_cast<ssize_t>(n)) std::exit(3);
            left -= n;
        }
    }
    crc = CalcCrc16(crc, config.data(), config.size());
    if (::write(fd, config.data(), config.size()) < 0) std::exit(3);
    header.DataCrc = crc;
    header.HeaderCrc = CalcCrc16(0, &header, offsetof(PacHeader, HeaderCrc));
    if (::pwrite(fd, &header, sizeof header, 0) != sizeof header) std::exit(3);
    ::close(fd);
}

// `count` entries of `entryBytes` each, all named "same.img" or each its own name; no CRCs.
void WriteManyEntries(const std::string& path, int count, std::uint32_t entryBytes, bool sameName) {
    std::vector<PacFileEntry> table(static_cast<std::size_t>(count));
    std::memset(table.data(), 0, table.size() * sizeof(PacFileEntry));
    for (int i = 0; i < count; ++i) {
        PacFileEntry& e = table[static_cast<std::size_t>(i)];
        WriteField(e.FileId, "ID" + std::to_string(i));
        WriteField(e.FileName, sameName ? std::string("same.img") : "file" + std::to_string(i) + ".img");
        e.FileSize = entryBytes;
        e.CheckFlag = 1;
    }
    PacHeader header = EmptyPacHeader();
    header.Magic = 0;
    WriteField(header.Version, kPacVersion);
    WriteField(header.ProductName, "Bench");
    header.FileCount = count;
    header.PackageSize = static_cast<std::uint32_t>(sizeof header + table.size() * sizeof(PacFileEntry) +
                                                    std::uint64_t{entryBytes} * static_cast<std::uint64_t>(count));
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::write(fd, &header, sizeof header) != sizeof header) std::exit(3);
    const std::size_t tableBytes = table.size() * sizeof(PacFileEntry);
    if (::write(fd, table.data(), tableBytes) != static_cast<ssize_t>(tableBytes)) std::exit(3);
    std::vector<std::uint8_t> data(entryBytes, 0x5A);
    for (int i = 0; i < count; ++i)
        if (::write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) std::exit(3);
    ::close(fd);
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// The baseline: the same bytes read in the same chunks and written to one file.
// `durable`: the time includes getting the data onto the disk (fsync).
double PlainCopy(const std::string& from, const std::string& to, bool durable) {
    ::sync();  // no writeback left over from the last round runs into this one
    const auto start = std::chrono::steady_clock::now();
    const int in = ::open(from.c_str(), O_RDONLY);
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);
    std::vector<std::uint8_t> buffer(kPacChunkSize);
    for (;;) {
        const ssize_t n = ::read(in, buffer.data(), buffer.size());
        if (n <= 0) break;
        if (::write(out, buffer.data(), static_cast<std::size_t>(n)) != n) std::exit(4);
    }
    if (durable) ::fsync(out);
    ::close(in);
    ::close(out);
    return Seconds(start);
}

double Extract(const std::string& package, const std::string& base, bool durable) {
    app::HeadlessConsoleUi ui;
    platform::SystemClock clock;
    ::sync();
    const auto start = std::chrono::steady_clock::now();
    CBinPack pack(ui.Teller(), clock);
    PacHeader header;
    std::vector<PacFileEntry> table;
    if (!pack.Open(package) || !pack.Unpack(base.c_str(), &header, &table)) {
        for (const auto& m : ui.Messages()) std::fprintf(stderr, "%s\n", m.c_str());
        std::exit(5);
    }
    if (durable) {
        for (const auto& e : fs::directory_iterator(pack.GetOutputFolder())) {
            const int fd = ::open(e.path().c_str(), O_RDONLY);
            ::fsync(fd);
            ::close(fd);
        }
    }
    const double s = Seconds(start);
    CBinPack::DeleteFolder(pack.GetOutputFolder().c_str());
    return s;
}

// Max RSS in KiB of a child that does nothing but one extraction.
long ExtractionPeakKib(const std::string& package, const std::string& base) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        Extract(package, base, false);
        ::_exit(0);
    }
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    return usage.ru_maxrss;
}

}  // namespace

int ManyEntries(int argc, char** argv) {
    const int count = argc > 2 ? std::atoi(argv[2]) : 10000;
    const std::string folder = argc > 3 ? argv[3] : "/tmp";
    const auto entryBytes = static_cast<std::uint32_t>(argc > 4 ? std::strtoul(argv[4], nullptr, 10) : 2048);
    const std::string work = folder + "/quorvel-pac-bench-" + std::to_string(::getpid());
    fs::create_directories(work);
    for (const bool sameName : {true, false}) {
        const std::string package = work + "/many.pac";
        WriteManyEntries(package, count, entryBytes, sameName);
        // The copy writes as many files as the extraction, so the difference is what
        // the extraction adds: checks, names, notices.
        ::sync();
        const auto start = std::chrono::steady_clock::now();
        const int in = ::open(package.c_str(), O_RDONLY);
        std::vector<std::uint8_t> buffer(entryBytes);
        ::lseek(in, static_cast<off_t>(kPacHeaderSize + std::uint64_t{kPacEntrySize} * count), SEEK_SET);
        fs::create_directories(work + "/copy");
        for (int i = 0; i < count; ++i) {
            if (::read(in, buffer.data(), buffer.size()) != static_cast<ssize_t>(buffer.size())) std::exit(4);
            const std::string to = work + "/copy/f" + std::to_string(i);
            const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (::write(out, buffer.data(), buffer.size()) != static_cast<ssize_t>(buffer.size())) std::exit(4);
            ::close(out);
        }
        ::close(in);
        const double copy = Seconds(start);
        fs::remove_all(work + "/copy");
        const double extract = Extract(package, work, false);
        std::printf(
            "%d entries of %u bytes, %s: plain copy %.3f s, extraction %.3f s, %.3f s beyond the copy "
            "(target < 1 s)\n",
            count, entryBytes, sameName ? "one name repeated" : "distinct names", copy, extract, extract - copy);
    }
    fs::remove_all(work);
    return 0;
}

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "entries") return ManyEntries(argc, argv);
    const std::uint64_t megabytes = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
    const std::string folder = argc > 2 ? argv[2] : "/tmp";
    const int rounds = std::max(1, argc > 3 ? std::atoi(argv[3]) : 9);
    const std::string work = folder + "/quorvel-pac-bench-" + std::to_string(::getpid());
    fs::create_directories(work);
    const std::string package = work + "/bench.pac";
    std::printf("writing a %llu MiB package in %s ...\n", static_cast<unsigned long long>(megabytes), work.c_str());
    WritePackage(package, megabytes << 20);
    const double bytes = static_cast<double>(fs::file_size(package));

    // Rounds alternate which goes first, so both see the same disk and cache state; one
    // untimed round first brings the memory both use into play. Shared virtual machines
    // stall either side now and then, so the figures are medians, and the ratio is the
    // median of the per-round ratios. First into the page cache (as the station writes),
    // then durable.
    for (const bool durable : {false, true}) {
        std::vector<double> copies, extracts, ratios;
        for (int r = -1; r < rounds; ++r) {
            double c = 0, e = 0;
            if (r % 2 == 0) {
                c = PlainCopy(package, work + "/copy.bin", durable);
                fs::remove(work + "/copy.bin");
                e = Extract(package, work, durable);
            } else {
                e = Extract(package, work, durable);
                c = PlainCopy(package, work + "/copy.bin", durable);
                fs::remove(work + "/copy.bin");
            }
            if (r < 0) continue;
            copies.push_back(bytes / c / 1e6);
            extracts.push_back(bytes / e / 1e6);
            ratios.push_back(100.0 * c / e);
            std::printf("%s round %d: copy %.0f MB/s, extract %.0f MB/s\n", durable ? "durable" : "cached", r + 1,
                        copies.back(), extracts.back());
        }
        std::printf(
            "%s: plain copy %.0f MB/s, extraction %.0f MB/s, extraction at %.1f %% of the copy "
            "(medians of %d rounds; target >= 90 %%)\n",
            durable ? "durable (with fsync)" : "page cache (no fsync)", Median(copies), Median(extracts),
            Median(ratios), rounds);
    }
    const long peak = ExtractionPeakKib(package, work);
    std::printf("peak memory %.1f MiB (max RSS of an extracting child; target < 32 MiB)\n", peak / 1024.0);
    fs::remove_all(work);
    return 0;
}
