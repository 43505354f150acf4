// CBinPack: checks, extraction rules, notices, refusals; CRC-16; housekeeping.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <random>

#include "app/Texts.h"
#include "packages/BinPack.h"
#include "packages/Crc16.h"
#include "packages/PackageHousekeeping.h"
#include "support/PacWriter.h"
#include "support/TempDir.h"
#include "PacTestSupport.h"

namespace fs = std::filesystem;
using namespace quorvel;
using namespace quorvel::packages;
using quorvel::test::PacEntrySpec;
using quorvel::test::PacSpec;

namespace {

std::string Name(const PacFileEntry& e) {
    std::string s;
    EXPECT_TRUE(ReadField(e.FileName, s));
    return s;
}

std::vector<std::string> FilesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(folder, ec)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class PacExtract : public ::testing::Test {
protected:
    struct Result {
        int ok;
        PacHeader header;
        std::vector<PacFileEntry> entries;
        std::vector<std::string> messages;
        std::vector<std::pair<platform::WParam, platform::LParam>> notices;
        std::string folder, lastFile;
    };

    Result Unpack(const std::string& bytes, const char* base = nullptr) {
        dir.Write("pkg.pac", bytes);
        return UnpackFile(dir.File("pkg.pac"), base ? base : images.c_str());
    }

    Result UnpackFile(const std::string& path, const char* base) {
        test::NoticeRecorder window;
        CBinPack pack(ui, clock, &window);
        pack.SetTempFolderSource(tempSource);
        Result r{};
        EXPECT_EQ(pack.Open(path), 1);
        r.ok = pack.Unpack(base, &r.header, &r.entries);
        r.messages = ui.Messages();
        r.notices = window.Notices();
        r.folder = pack.GetOutputFolder();
        r.lastFile = pack.GetLastFilePath();
        ui.Clear();
        return r;
    }

    void SetUp() override {
        images = dir.Path() + "ImageFiles";
        fs::create_directories(images);
        fs::create_directories(dir.Path() + "tmp");
        tempSource = [this] { return std::optional<std::string>(dir.Path() + "tmp/"); };
    }

    test::TempDir dir;
    platform::ManualClock clock{1234};
    app::HeadlessConsoleUi ui;
    std::string images;
    CBinPack::TempFolderSource tempSource;
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
    // Split runs continue the same CRC, and the residue rule holds.
    const std::uint16_t whole = CalcCrc16(0, data.data(), 3000);
    EXPECT_EQ(CalcCrc16(CalcCrc16(0, data.data(), 1234), data.data() + 1234, 1766), whole);
    const std::uint8_t stored[2] = {static_cast<std::uint8_t>(whole & 0xFF), static_cast<std::uint8_t>(whole >> 8)};
    EXPECT_EQ(CalcCrc16(whole, stored, 2), 0);
}

TEST_F(PacExtract, ExtractsEveryFileAndHandsBackTheTable) {
    auto layout = test::TypicalSprdPac();
    const Result r = Unpack(test::BuildPac(layout));
    ASSERT_EQ(r.ok, 1) << (r.messages.empty() ? "" : r.messages[0]);
    EXPECT_TRUE(r.messages.empty());
    EXPECT_EQ(r.folder, images + "/_DownloadFiles1234");

    // One unnamed entry with data: one entry fewer in the returned table and header.
    EXPECT_EQ(r.header.FileCount, 6);
    ASSERT_EQ(r.entries.size(), 6u);
    EXPECT_EQ(Name(r.entries[0]), r.folder + "/fdl1.bin");
    EXPECT_EQ(Name(r.entries[4]), r.folder + "/system.img");
    EXPECT_EQ(Name(r.entries[5]), "");  // no data: the bare name stays
    EXPECT_EQ(dir.Read("ImageFiles/_DownloadFiles1234/system.img"), layout.entries[4].data);
    std::string product;
    ReadField(r.header.ProductName, product);
    EXPECT_EQ(product, "PAC_SC9863A");

    // The configuration file: its final NUL is not written.
    EXPECT_EQ(r.lastFile, r.folder + "/product.xml");
    EXPECT_EQ(dir.Read("ImageFiles/_DownloadFiles1234/product.xml"), "<config/>\n");

    ASSERT_GE(r.notices.size(), 3u);
    EXPECT_EQ(r.notices.front(), std::make_pair(platform::WParam{0}, platform::LParam{r.header.PackageSize}));
    EXPECT_EQ(r.notices.back(), std::make_pair(platform::WParam{2}, platform::LParam{1}));
    EXPECT_EQ(r.notices.size(), 2u + 6u);  // one percent notice per file with data
}

TEST_F(PacExtract, TrailingZeroRuleTouchesOnlyTheLastFilesFinalByte) {
    PacSpec layout;
    layout.entries = {{"A", "a.bin", std::string("ab\0\0", 4)}, {"B", "b.bin", std::string("cd\0\0", 4)}};
    const Result r = Unpack(test::BuildPac(layout));
    ASSERT_EQ(r.ok, 1);
    EXPECT_EQ(dir.Read("ImageFiles/_DownloadFiles1234/a.bin"), std::string("ab\0\0", 4));
    EXPECT_EQ(dir.Read("ImageFiles/_DownloadFiles1234/b.bin"), std::string("cd\0", 3));

    layout.entries[1].data = "cd!";
    clock.Advance(1);
    ASSERT_EQ(Unpack(test::BuildPac(layout)).ok, 1);
    EXPECT_EQ(dir.Read("ImageFiles/_DownloadFiles1235/b.bin"), "cd!");
}

TEST_F(PacExtract, DuplicateNamesZeroSizedAndUnnamedEntries) {
    PacSpec layout;
    layout.entries = {
        {"", "same.bin", "1"},         // unnamed, first: the LAST entry is dropped
        {"B", "same.bin", "2"},
        {"C", "same.bin", "3"},
        {"", "empty.bin", ""},         // no data: not unnamed, bare name kept
        {"E", "last.bin", "5"},
    };
    const Result r = Unpack(test::BuildPac(layout));
    ASSERT_EQ(r.ok, 1);
    EXPECT_EQ(FilesIn(r.folder), (std::vector<std::string>{"last.bin", "same.bin", "same.bin(1)", "same.bin(2)"}));
    EXPECT_EQ(dir.Read("ImageFiles/_DownloadFiles1234/same.bin(2)"), "3");
    ASSERT_EQ(r.entries.size(), 4u);
    EXPECT_EQ(Name(r.entries[0]), r.folder + "/same.bin");
    EXPECT_EQ(Name(r.entries[3]), "empty.bin");
}

TEST_F(PacExtract, ProductNameGetsPrefixUnlessItStartsWithIt) {
    for (auto [given, expected] : {std::pair{"PAC_X", "PAC_X"}, {"X", "PAC_X"}, {"XPAC_1", "PAC_XPAC_1"}, {"", "PAC_"}}) {
        PacSpec layout;
        layout.productName = given;
        layout.entries = {{"A", "a", "1"}};
        clock.Advance(1);
        const Result r = Unpack(test::BuildPac(layout));
        ASSERT_EQ(r.ok, 1);
        std::string product;
        ReadField(r.header.ProductName, product);
        EXPECT_EQ(product, expected);
    }
}

TEST_F(PacExtract, WithoutMagicNoCrcIsChecked) {
    PacSpec layout;
    layout.withCrc = false;
    layout.badHeaderCrc = layout.badDataCrc = true;
    layout.entries = {{"A", "a", "1"}};
    EXPECT_EQ(Unpack(test::BuildPac(layout)).ok, 1);
}

TEST_F(PacExtract, LargeFileSendsOneNoticePerChunkFromThePositionBeforeIt) {
    PacSpec layout;
    const std::size_t big = kPacChunkSize * 2 + 12345;
    layout.entries = {{"A", "big.bin", std::string(big, 'x')}, {"B", "small", "s"}};
    const std::string bytes = test::BuildPac(layout);
    const Result r = Unpack(bytes);
    ASSERT_EQ(r.ok, 1);
    const std::uint64_t size = bytes.size();
    const std::uint64_t start = kPacHeaderSize + 2 * kPacEntrySize;
    const std::vector<std::pair<platform::WParam, platform::LParam>> expected = {
        {0, static_cast<platform::LParam>(size)},
        {1, static_cast<platform::LParam>(start * 100 / size)},
        {1, static_cast<platform::LParam>((start + kPacChunkSize) * 100 / size)},
        {1, static_cast<platform::LParam>((start + 2 * kPacChunkSize) * 100 / size)},
        {1, static_cast<platform::LParam>((start + big) * 100 / size)},
        {2, 1},
    };
    EXPECT_EQ(r.notices, expected);
    EXPECT_EQ(fs::file_size(r.folder + "/big.bin"), big);
}

// ---- the failure table: each row's message, then notice (2, 0) ----

struct FailureRow {
    const char* label;
    std::function<void(PacSpec&)> make;
    std::string message;
};

class PacFailure : public PacExtract, public ::testing::WithParamInterface<FailureRow> {};

TEST_P(PacFailure, ShowsItsMessageAndEndsWithFailureNotice) {
    PacSpec layout;
    layout.entries = {{"A", "a.bin", "hello"}, {"B", "b.bin", "world"}};
    GetParam().make(layout);
    const Result r = Unpack(test::BuildPac(layout));
    EXPECT_EQ(r.ok, 0);
    EXPECT_EQ(r.messages, std::vector<std::string>{GetParam().message});
    ASSERT_FALSE(r.notices.empty());
    EXPECT_EQ(r.notices.back(), std::make_pair(platform::WParam{2}, platform::LParam{0}));
}

using H = PacHeader;
using T = std::vector<PacFileEntry>;
const std::string kDisk = std::string("Extract PAC file failed!\nThe left space of \"");

INSTANTIATE_TEST_SUITE_P(
    Rows, PacFailure,
    ::testing::Values(
        FailureRow{"too_small", [](PacSpec& s) { s.tweakBytes = [](std::string& b) { b.resize(2123); }; },
                   app::texts::kPacTooSmall},
        FailureRow{"header_crc", [](PacSpec& s) { s.badHeaderCrc = true; }, app::texts::kPacCrcError},
        FailureRow{"version", [](PacSpec& s) { s.version = "bp_r1.0.0"; }, app::texts::kPacVersionNotSupported},
        FailureRow{"version_prefix", [](PacSpec& s) { s.version = "BP_R1.0.0x"; },
                   app::texts::kPacVersionNotSupported},
        FailureRow{"package_size", [](PacSpec& s) { s.tweak = [](H& h, T&) { h.PackageSize += 1; }; },
                   app::texts::kPacSizeWrong},
        FailureRow{"no_files", [](PacSpec& s) { s.entries.clear(); }, app::texts::kPacNoFiles},
        FailureRow{"negative_count", [](PacSpec& s) { s.tweak = [](H& h, T&) { h.FileCount = -1; }; },
                   app::texts::kPacOutOfMemory},
        FailureRow{"table_cut", [](PacSpec& s) { s.tweak = [](H& h, T&) { h.FileCount = 1000; }; },
                   app::texts::kPacReadFailed},
        FailureRow{"size_equals_package",
                   [](PacSpec& s) { s.tweak = [](H& h, T& t) { t[1].FileSize = h.PackageSize; }; },
                   app::texts::kPacReadFailed},
        FailureRow{"size_all_ones", [](PacSpec& s) { s.tweak = [](H&, T& t) { t[0].FileSize = 0xFFFFFFFF; }; },
                   app::texts::kPacReadFailed},
        // A FileSize that lies: the data runs out before the entry does.
        FailureRow{"lying_size_no_crc",
                   [](PacSpec& s) {
                       s.withCrc = false;
                       s.tweak = [](H&, T& t) { t[1].FileSize = 100; };
                   },
                   app::texts::kPacReadFailed},
        FailureRow{"data_crc", [](PacSpec& s) { s.badDataCrc = true; }, app::texts::kPacCrcError},
        FailureRow{"data_flipped",
                   [](PacSpec& s) { s.tweakBytes = [](std::string& b) { b[b.size() - 3] ^= 1; }; },
                   app::texts::kPacCrcError},
        // Refusals: names that would leave the folder, texts longer than their fields.
        FailureRow{"name_parent", [](PacSpec& s) { s.entries[1].name = "../evil"; },
                   "Bin packet's file name [../evil] of entry 1 is refused: it contains a path separator.\n"
                   "Only a bare file name can be extracted!"},
        FailureRow{"name_dots", [](PacSpec& s) { s.entries[1].name = ".."; },
                   "Bin packet's file name [..] of entry 1 is refused: it contains \"..\".\n"
                   "Only a bare file name can be extracted!"},
        FailureRow{"name_absolute", [](PacSpec& s) { s.entries[0].name = "/etc/passwd"; },
                   "Bin packet's file name [/etc/passwd] of entry 0 is refused: it contains a path separator.\n"
                   "Only a bare file name can be extracted!"},
        FailureRow{"name_backslash", [](PacSpec& s) { s.entries[0].name = "C:\\x"; },
                   "Bin packet's file name [C:\\x] of entry 0 is refused: it contains a path separator.\n"
                   "Only a bare file name can be extracted!"},
        FailureRow{"name_empty", [](PacSpec& s) { s.entries[1].name = ""; },
                   "Bin packet's file name [] of entry 1 is refused: it is empty.\n"
                   "Only a bare file name can be extracted!"},
        FailureRow{"name_unterminated",
                   [](PacSpec& s) {
                       s.tweak = [](H&, T& t) { std::fill(std::begin(t[1].FileName), std::end(t[1].FileName), u'a'); };
                   },
                   "Bin packet's entry 1 has a text longer than its field!"},
        FailureRow{"product_unterminated",
                   [](PacSpec& s) {
                       s.tweak = [](H& h, T&) { std::fill(std::begin(h.ProductName), std::end(h.ProductName), u'p'); };
                   },
                   app::texts::kPacProductNameTooLong},
        FailureRow{"product_no_room_for_prefix", [](PacSpec& s) { s.productName = std::string(253, 'p'); },
                   app::texts::kPacProductNameTooLong}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(PacExtract, RefusedNamesWriteNothingInsideOrOutside) {
    PacSpec layout;
    layout.entries = {{"A", "good.bin", "1"}, {"B", "../../escaped.bin", "2"}};
    const Result r = Unpack(test::BuildPac(layout));
    EXPECT_EQ(r.ok, 0);
    EXPECT_TRUE(FilesIn(r.folder).empty());
    EXPECT_FALSE(fs::exists(dir.Path() + "escaped.bin"));
}

TEST_F(PacExtract, ExtractionPathLongerThanItsFieldIsRefused) {
    const std::string base = dir.Path() + std::string(200, 'd');
    fs::create_directories(base);
    PacSpec layout;
    layout.entries = {{"A", std::string(60, 'n'), "1"}};
    const Result r = Unpack(test::BuildPac(layout), base.c_str());
    EXPECT_EQ(r.ok, 0);
    ASSERT_EQ(r.messages.size(), 1u);
    EXPECT_EQ(r.messages[0].rfind("Extract path [", 0), 0u);
    EXPECT_TRUE(FilesIn(r.folder).empty());
}

TEST_F(PacExtract, ParamsTempFolderAndDirectoryFailures) {
    PacSpec layout;
    layout.entries = {{"A", "a", "1"}};
    dir.Write("pkg.pac", test::BuildPac(layout));
    {
        CBinPack pack(ui, clock);
        ASSERT_EQ(pack.Open(dir.File("pkg.pac")), 1);
        PacHeader h;
        EXPECT_EQ(pack.Unpack(images.c_str(), &h, nullptr), 0);
        EXPECT_EQ(ui.Messages(), std::vector<std::string>{app::texts::kPacInvalidParams});
        ui.Clear();
    }
    {
        test::NoticeRecorder window;
        CBinPack pack(ui, clock, &window);  // never opened: no message, still the end notice
        PacHeader h;
        std::vector<PacFileEntry> t;
        EXPECT_EQ(pack.Unpack(images.c_str(), &h, &t), 0);
        EXPECT_TRUE(ui.Messages().empty());
        EXPECT_EQ(window.Notices(), (std::vector<std::pair<platform::WParam, platform::LParam>>{{2, 0}}));
        EXPECT_EQ(pack.Open(dir.File("missing.pac")), 0);
        EXPECT_EQ(ui.Messages(), std::vector<std::string>{"Can not open file [" + dir.File("missing.pac") + "]\n"});
        ui.Clear();
    }
    tempSource = [] { return std::optional<std::string>(); };
    EXPECT_EQ(UnpackFile(dir.File("pkg.pac"), nullptr).messages, std::vector<std::string>{app::texts::kPacNoTempPath});

    tempSource = [this] { return std::optional<std::string>(dir.Path() + "tmp"); };
    const Result inTemp = UnpackFile(dir.File("pkg.pac"), "x");  // shorter than 2: the temporary folder
    EXPECT_EQ(inTemp.ok, 1);
    EXPECT_EQ(inTemp.folder, dir.Path() + "tmp/_DownloadFiles1234");

    dir.Write("plain-file", "x");
    const std::string under = dir.File("plain-file");
    const Result r = UnpackFile(dir.File("pkg.pac"), under.c_str());
    EXPECT_EQ(r.messages, std::vector<std::string>{"Can not create directory[" + under + "/_DownloadFiles1234]"});
}

TEST_F(PacExtract, AnEarlierFolderOfTheSameNameIsReplaced) {
    fs::create_directories(images + "/_DownloadFiles1234/old");
    dir.Write("ImageFiles/_DownloadFiles1234/old/f", "x");
    PacSpec layout;
    layout.entries = {{"A", "a", "1"}};
    ASSERT_EQ(Unpack(test::BuildPac(layout)).ok, 1);
    EXPECT_EQ(FilesIn(images + "/_DownloadFiles1234"), std::vector<std::string>{"a"});
}

TEST_F(PacExtract, AFailedWriteShowsTheDiskMessage) {
    PacSpec layout;
    layout.entries = {{"A", "a.bin", std::string(8192, 'a')}};
    dir.Write("pkg.pac", test::BuildPac(layout));
    // In a child: a file size limit makes the write fail as a full disk would.
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        test::NoticeRecorder window;
        app::HeadlessConsoleUi childUi;
        CBinPack pack(childUi, clock, &window);
        PacHeader h;
        std::vector<PacFileEntry> t;
        if (!pack.Open(dir.File("pkg.pac")) || pack.Unpack(images.c_str(), &h, &t) != 0) ::_exit(1);
        const auto m = childUi.Messages();
        if (m.size() != 1 || m[0].rfind(kDisk, 0) != 0) ::_exit(2);
        ::_exit(window.Notices().back() == std::make_pair(platform::WParam{2}, platform::LParam{0}) ? 0 : 3);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(PacExtract, AFullDiskIsFoundBeforeTheFilesFirstByte) {
    PacSpec layout;
    layout.entries = {{"A", "a.bin", std::string(1 << 20, 'a')}};
    const std::string package = test::BuildPac(layout);
    // In a child with a mount namespace of its own: the extraction folder sits on a 64 KiB tmpfs.
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("quorvel-test", images.c_str(), "tmpfs", 0, "size=64k") != 0)
            ::_exit(77);
        const Result r = Unpack(package);
        if (r.ok != 0 || r.messages.size() != 1 || r.messages[0].rfind(kDisk, 0) != 0) ::_exit(2);
        std::error_code ec;
        ::_exit(fs::file_size(r.folder + "/a.bin", ec) == 0 && !ec ? 0 : 3);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private mount namespace for a small file system here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(DeleteFolder, RemovesTheTreeButNeverFollowsLinks) {
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
}

TEST(Housekeeping, AgeRulesEmptyingAndRecordedFolders) {
    test::TempDir dir;
    const auto now = static_cast<std::int64_t>(std::time(nullptr));
    dir.Write("tmp/_DownloadFiles5/f", "x");
    dir.Write("tmp/_DownloadFilesX/f", "x");
    dir.Write("tmp/other/f", "x");
    dir.Write("tmp/_DownloadFilesFile", "x");  // a file, not a folder: kept
    dir.Write("imgstore/a.bin", "x");
    dir.Write("imgstore/b.txt", "x");
    fs::create_directories(dir.Path() + "imgstore/c.bin");

    {  // less than a day: nothing goes
        platform::ManualClock clock(0, now + 86400 - 100);
        PackageHousekeeping hk(clock);
        hk.DeleteOldTempFolders(dir.Path() + "tmp/");
        EXPECT_TRUE(fs::exists(dir.Path() + "tmp/_DownloadFiles5"));
    }
    {
        platform::ManualClock clock(0, now + 86400 + 100);
        PackageHousekeeping hk(clock);
        hk.DeleteOldTempFolders(dir.Path() + "tmp/");
        hk.DeleteOldImageStoreFiles(dir.Path() + "imgstore");
        EXPECT_FALSE(fs::exists(dir.Path() + "tmp/_DownloadFiles5"));
        EXPECT_FALSE(fs::exists(dir.Path() + "tmp/_DownloadFilesX"));
        EXPECT_TRUE(fs::exists(dir.Path() + "tmp/other/f"));
        EXPECT_TRUE(fs::exists(dir.Path() + "tmp/_DownloadFilesFile"));
        EXPECT_TRUE(fs::exists(dir.Path() + "imgstore/a.bin"));  // 1 day < 7
    }
    {
        platform::ManualClock clock(0, now + 7 * 86400 + 100);
        PackageHousekeeping(clock).DeleteOldImageStoreFiles(dir.Path() + "imgstore");
        EXPECT_FALSE(fs::exists(dir.Path() + "imgstore/a.bin"));
        EXPECT_TRUE(fs::exists(dir.Path() + "imgstore/b.txt"));
        EXPECT_TRUE(fs::exists(dir.Path() + "imgstore/c.bin"));  // a folder
    }

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
