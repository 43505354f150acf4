// CBinPack: checks, extraction rules, notices, refusals; the checks without extraction
// (both CRCs by streaming, the table handed on); CRC-16; housekeeping.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "console/ConsoleUi.h"
#include "packages/BinPack.h"
#include "packages/Crc16.h"
#include "packages/PacInspect.h"
#include "packages/PackageHousekeeping.h"
#include "station/Messages.h"
#include "station/Texts.h"
#include "support/Golden.h"
#include "support/PacWriter.h"
#include "support/SmallDisk.h"
#include "support/TableFile.h"
#include "support/TempDir.h"
#include "support/Unprivileged.h"

namespace fs = std::filesystem;
using namespace quorvel;
using namespace quorvel::packages;
using quorvel::test::PacEntrySpec;
using quorvel::test::PacSpec;

namespace {

// A notice as {stage, value}: 0 started (size), 1 percent, 2 ended (1 ok).
using Notice = std::pair<int, std::int64_t>;
using Notices = std::vector<Notice>;
const Notice kEndFailed{2, 0};

// The extraction sends its notices on the calling thread, so a plain vector records them.
struct NoticeRecorder final : app::MessageWindow {
    platform::LResult Send(app::Message message) override {
        std::visit(app::Overloaded{
                       [&](const app::PacStarted& m) { notices.emplace_back(0, m.packageSize); },
                       [&](const app::PacPercent& m) { notices.emplace_back(1, m.percent); },
                       [&](const app::PacEnded& m) { notices.emplace_back(2, m.ok ? 1 : 0); },
                       [](const auto&) {},
                   },
                   message);
        return 0;
    }
    void Post(app::Message message) override { Send(std::move(message)); }
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}
    Notices notices;
};

template <std::size_t N>
std::string Text(const char16_t (&field)[N]) {
    std::string s;
    EXPECT_TRUE(ReadField(field, s));
    return s;
}

std::vector<std::string> FilesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(folder, ec)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The package folder as text: each file, its size and its bytes made printable.
std::string FolderText(const std::string& folder) {
    std::string text;
    for (const std::string& name : FilesIn(folder)) {
        std::ifstream in(folder + "/" + name, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        text += "  " + name + " " + std::to_string(bytes.size()) + ": " +
                test::Printable(bytes.size() > 16 ? bytes.substr(0, 16) + "..." : bytes) + "\n";
    }
    return text;
}

PacSpec With(std::vector<PacEntrySpec> entries) {
    PacSpec layout;
    layout.entries = std::move(entries);
    return layout;
}

class PacExtract : public ::testing::Test {
protected:
    struct Result {
        int ok;
        PacHeader header;
        std::vector<PacFileEntry> entries;
        std::vector<std::string> messages;
        Notices notices;
        std::string folder, lastFile;
    };

    Result Unpack(const PacSpec& layout) {
        dir.Write("pkg.pac", test::BuildPac(layout));
        return UnpackFile(dir.File("pkg.pac"), images.c_str());
    }

    Result UnpackFile(const std::string& path, const char* base) {
        NoticeRecorder window;
        CBinPack pack(ui.Teller(), clock, &window);
        pack.SetTempFolderSource(tempSource);
        Result r{};
        EXPECT_EQ(pack.Open(path), 1);
        r.ok = pack.Unpack(base, &r.header, &r.entries);
        r.messages = ui.Messages();
        r.notices = window.notices;
        r.folder = pack.GetOutputFolder();
        r.lastFile = pack.GetLastFilePath();
        ui.Clear();
        return r;
    }

    // Everything an extraction gives back, with the test folder as $DIR.
    std::string Describe(const Result& r) const {
        std::string text = "ok " + std::to_string(r.ok) + "\nfolder " + r.folder + "\nheader " +
                           std::to_string(r.header.FileCount) + " files, product " + Text(r.header.ProductName) +
                           "\ntable:\n";
        for (const PacFileEntry& e : r.entries)
            text += "  " + Text(e.FileId) + " " + Text(e.FileName) + " " + std::to_string(e.FileSize) + "\n";
        text += "last file " + r.lastFile + "\nfiles:\n" + FolderText(r.folder) + "notices:";
        for (const auto& [w, l] : r.notices) text += " " + std::to_string(w) + "/" + std::to_string(l);
        text += "\nmessages:\n";
        for (const std::string& m : r.messages) text += "  " + test::Printable(m) + "\n";
        return test::Scrub(text, {{dir.Path(), "$DIR/"}});
    }

    void SetUp() override {
        fs::create_directories(images);
        fs::create_directories(dir.Path() + "tmp");
    }

    test::TempDir dir;
    platform::ManualClock clock{1234};
    app::HeadlessConsoleUi ui;
    std::string images = dir.Path() + "ImageFiles";
    CBinPack::TempFolderSource tempSource = [this] { return std::optional<std::string>(dir.Path() + "tmp"); };
};

TEST(Crc16, CatalogueValueAndFastFormAgreeWithBytewiseDefinition) {
    EXPECT_EQ(CalcCrc16(0, "123456789", 9), 0xBB3D);
    std::mt19937 rng(7);
    std::vector<std::uint8_t> data(5000);
    for (auto& b : data) b = static_cast<std::uint8_t>(rng());
    for (std::size_t offset : {0, 1, 3, 7}) {
        for (std::size_t len : {0, 1, 15, 16, 17, 31, 64, 255, 256, 257, 319, 320, 1000, 4993}) {
            const auto start = static_cast<std::uint16_t>(rng());
            ASSERT_EQ(CalcCrc16(start, data.data() + offset, len), CalcCrc16Bytewise(start, data.data() + offset, len))
                << offset << "/" << len;
        }
    }
    // Any start value agrees, so split runs continue the same CRC; the residue rule holds.
    const std::uint16_t whole = CalcCrc16(0, data.data(), 3000);
    const std::uint8_t stored[2] = {static_cast<std::uint8_t>(whole & 0xFF), static_cast<std::uint8_t>(whole >> 8)};
    EXPECT_EQ(CalcCrc16(whole, stored, 2), 0);
}

// The cases: tests/tables/pac-extract.txt.
TEST_F(PacExtract, ExtractsEveryFileAndHandsBackTheTable) {
    const CBinPack::TempFolderSource temp = tempSource;
    for (const auto& row : test::ReadTable("pac-extract.txt")) {
        const auto& w = row.words;
        std::string base = images;
        std::size_t at = 1;
        tempSource = temp;
        for (; at < w.size() && (w[at].rfind("base=", 0) == 0 || w[at].rfind("stale=", 0) == 0 || w[at] == "no-temp");
             ++at) {
            const std::string value = w[at].substr(w[at].find('=') + 1);
            if (w[at][0] == 'b') base = value.size() < 2 ? value : dir.Path() + value;
            if (w[at][0] == 's') dir.Write(value, "x");
            if (w[at] == "no-temp") tempSource = [] { return std::optional<std::string>(); };
        }
        PacSpec layout;
        std::string error;
        ASSERT_TRUE(test::ChangePac(layout, w, at, error)) << row.where << ": " << error;
        dir.Write("pkg.pac", test::BuildPac(layout));
        const Result r = UnpackFile(dir.File("pkg.pac"), base.empty() ? nullptr : base.c_str());
        EXPECT_TRUE(test::MatchesGolden("pac-extract/" + w[0] + ".txt", Describe(r)));
    }
}

// The cases: tests/tables/pac-extract-failures.txt.
TEST_F(PacExtract, EachFailureShowsItsMessageAndEndsWithTheFailureNotice) {
    std::string messages;
    for (const auto& row : test::ReadTable("pac-extract-failures.txt")) {
        SCOPED_TRACE(row.where);
        PacSpec layout = With({{"A", "a.bin", "hello"}, {"B", "b.bin", "world"}});
        std::string error;
        ASSERT_TRUE(test::ChangePac(layout, row.words, 1, error)) << error;
        const Result r = Unpack(layout);
        EXPECT_EQ(r.ok, 0);
        ASSERT_EQ(r.messages.size(), 1u);
        messages += row.words[0] + ": " + test::Printable(r.messages[0]) + "\n";
        ASSERT_FALSE(r.notices.empty());
        EXPECT_EQ(r.notices.back(), kEndFailed);
        if (row.words[0].rfind("name", 0) == 0) {
            EXPECT_TRUE(FilesIn(r.folder).empty());
        }
    }
    EXPECT_TRUE(test::MatchesGolden("pac-extract/failures.txt", test::Scrub(messages, {{dir.Path(), "$DIR/"}})));
    EXPECT_FALSE(fs::exists(dir.Path() + "evil"));
}

TEST_F(PacExtract, AMisusedOrUnopenedPackageRefusesToExtract) {
    dir.Write("pkg.pac", test::BuildPac(With({{"A", "a", "1"}})));
    PacHeader h;
    std::vector<PacFileEntry> t;
    CBinPack pack(ui.Teller(), clock);
    ASSERT_EQ(pack.Open(dir.File("pkg.pac")), 1);
    EXPECT_EQ(pack.Unpack(images.c_str(), &h, nullptr), 0);
    EXPECT_EQ(ui.Messages(), std::vector<std::string>{app::texts::kPacInvalidParams});
    ui.Clear();
    NoticeRecorder window;
    CBinPack unopened(ui.Teller(), clock, &window);  // no message, still the end notice
    EXPECT_EQ(unopened.Unpack(images.c_str(), &h, &t), 0);
    EXPECT_TRUE(ui.Messages().empty());
    EXPECT_EQ(window.notices, Notices{kEndFailed});
}

const std::string kDisk = "Extract PAC file failed!\nThe left space of \"";

// A failed write shows the disk message; a full disk is found before the file's first byte.
TEST_F(PacExtract, AFailedWriteOrAFullDiskShowsTheDiskMessage) {
    auto diskFailure = [](const Result& r) {
        return r.ok == 0 && r.messages.size() == 1 && r.messages[0].rfind(kDisk, 0) == 0 &&
               r.notices.back() == kEndFailed;
    };
    dir.Write("pkg.pac", test::BuildPac(With({{"A", "a.bin", std::string(8192, 'a')}})));
    // A file size limit makes the write fail as a full disk would.
    EXPECT_EQ(test::RunInChild([&] {
                  std::signal(SIGXFSZ, SIG_IGN);
                  rlimit limit{4096, 4096};
                  ::setrlimit(RLIMIT_FSIZE, &limit);
                  return diskFailure(UnpackFile(dir.File("pkg.pac"), images.c_str())) ? 0 : 2;
              }),
              0);

    // A 64 KiB disk cannot take a 1 MiB file.
    test::SmallDisk disk("64k");
    if (!disk.Ready()) GTEST_SKIP() << disk.Reason();
    dir.Write("big.pac", test::BuildPac(With({{"A", "a.bin", std::string(1 << 20, 'a')}})));
    const Result r = UnpackFile(dir.File("big.pac"), disk.Path().c_str());
    std::error_code ec;
    EXPECT_TRUE(diskFailure(r));
    EXPECT_EQ(fs::file_size(r.folder + "/a.bin", ec), 0u);
    EXPECT_FALSE(ec);
}

// What the checks find, package by package: the quorvel-pac runs of tests/tables/quorvel-pac.txt.
TEST(PacInspect, VerificationReportsProgressChunkByChunk) {
    test::TempDir dir;
    test::WritePac(dir.File("good.pac"), With({{"A", "a", std::string(kPacChunkSize + 10, 'a')}, {"", "cfg", "c"}}));
    PacVerification v;
    std::vector<int> progress;
    std::string message;
    ASSERT_TRUE(VerifyPac(dir.File("good.pac"), v, message, [&](int p) { progress.push_back(p); }));
    EXPECT_EQ(v.dataBytes, kPacChunkSize + 11);
    EXPECT_EQ(progress.back(), 100);
    EXPECT_GE(progress.size(), 3u);
}

TEST(Housekeeping, AgeRulesEmptyingRecordedFoldersAndNoLinkFollowed) {
    test::TempDir dir;
    dir.Write("keep/precious", "x");
    dir.Write("victim/sub/deep/f", "y");
    fs::create_directory_symlink(dir.Path() + "keep", dir.Path() + "victim/sub/link");
    fs::create_symlink(dir.Path() + "keep/precious", dir.Path() + "victim/filelink");
    EXPECT_EQ(CBinPack::DeleteFolder((dir.Path() + "victim").c_str()), 1);
    EXPECT_FALSE(fs::exists(dir.Path() + "victim"));
    EXPECT_EQ(dir.Read("keep/precious"), "x");
    EXPECT_EQ(CBinPack::DeleteFolder(nullptr), 1);
    EXPECT_EQ(CBinPack::DeleteFolder((dir.Path() + "nothing").c_str()), 1);
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    auto after = [&](std::int64_t seconds, std::vector<const char*> kept, std::vector<const char*> gone) {
        platform::ManualClock clock(0, now + seconds);
        PackageHousekeeping(clock).DeleteOldTempFolders(dir.Path() + "tmp/");
        PackageHousekeeping(clock).DeleteOldImageStoreFiles(dir.Path() + "imgstore");
        for (const char* p : kept) EXPECT_TRUE(fs::exists(dir.Path() + p)) << p;
        for (const char* p : gone) EXPECT_FALSE(fs::exists(dir.Path() + p)) << p;
    };
    // Wildcards ignore letter case.
    for (const char* f : {"tmp/_DownloadFiles5/f", "tmp/_downloadFILESX/f", "tmp/other/f", "imgstore/a.bin",
                          "imgstore/A2.BIN", "imgstore/b.txt", "tmp/_DownloadFilesFile"})  // the last, a file: kept
        dir.Write(f, "x");
    fs::create_directories(dir.Path() + "imgstore/c.bin");  // a folder: kept
    after(86400 - 100, {"tmp/_DownloadFiles5"}, {});
    after(86400 + 100, {"tmp/other/f", "tmp/_DownloadFilesFile", "imgstore/a.bin"},  // 1 day < 7
          {"tmp/_DownloadFiles5", "tmp/_downloadFILESX"});
    after(7 * 86400 + 100, {"imgstore/b.txt", "imgstore/c.bin"}, {"imgstore/a.bin", "imgstore/A2.BIN"});

    dir.Write("outside/keep", "k");
    dir.Write("ImageFiles/sub/ro", "x");
    fs::permissions(dir.Path() + "ImageFiles/sub/ro", fs::perms::owner_read);
    fs::permissions(dir.Path() + "ImageFiles/sub", fs::perms::owner_read | fs::perms::owner_exec);
    fs::create_directory_symlink(dir.Path() + "outside", dir.Path() + "ImageFiles/link");
    PackageHousekeeping::EmptyFolder(dir.Path() + "ImageFiles");
    EXPECT_TRUE(fs::is_directory(dir.Path() + "ImageFiles"));
    EXPECT_TRUE(fs::is_empty(dir.Path() + "ImageFiles"));
    EXPECT_EQ(dir.Read("outside/keep"), "k");
    PackageHousekeeping::EmptyFolder(dir.Path() + "new/ImageFiles");  // made, parent by parent
    EXPECT_TRUE(fs::is_directory(dir.Path() + "new/ImageFiles"));

    std::vector<std::string> recorded{dir.Path() + "new", ""};
    PackageHousekeeping::DeleteRecordedFolders(recorded);
    EXPECT_TRUE(recorded.empty());
    EXPECT_FALSE(fs::exists(dir.Path() + "new"));
}

}  // namespace
