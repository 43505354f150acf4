// quorvel-pac: inspect, verify and extract PAC firmware packages as the station does,
// and show which files the station would download.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "console/ConsoleUi.h"
#include "packages/BinPack.h"
#include "packages/DemoSprdPackage.h"
#include "packages/PacInspect.h"
#include "packages/SprdDownloadConfig.h"
#include "platform/Clock.h"
#include "platform/JsonText.h"
#include "station/Messages.h"

using namespace quorvel;
using namespace quorvel::packages;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitPackage = 1;  // the package failed a check
constexpr int kExitUsage = 2;

const char* kHelp =
    R"HELP(quorvel-pac - look into a PAC firmware package the way the station does

Usage:
  quorvel-pac list    [--json] PACKAGE          show the header and the file table
  quorvel-pac verify  [--json] PACKAGE          read the whole package and check both CRCs
  quorvel-pac extract [--json] PACKAGE FOLDER   extract every file into a new folder
                                                FOLDER/_DownloadFiles<n>, named as the station names it
                                                (FOLDER is made when it does not exist)
  quorvel-pac plan    [--json] PACKAGE          show which files the station would download
                                                and the verdict of its safety checks
  quorvel-pac demo    FOLDER                    write a small SPRD demo package, FOLDER/demo/sprd_demo.pac,
                                                whose download scheme the native SPRD engine reads
  quorvel-pac --help

Options:
  --json         print the result as one JSON object on standard output
  --no-progress  never draw the progress bar (it is drawn only on a terminal anyway)

What you see:
  list     product name, version, package size, flags (repartition, NV backup), whether
           the package carries CRCs, and per file: id, name, size, FileFlags, CheckFlag,
           OmitFlag.
  verify   "OK" when the header CRC and the data CRC both match (or the package carries
           none and all data is present).
  extract  the folder made (<n> is a millisecond tick count) and the path of every file
           written. A name that occurs twice gets "(1)", "(2)"... appended; the last file
           (the package's configuration file) loses its final byte when that byte is zero.
           A file name that is not a bare name (with "/", "\" or "..") is refused before
           anything is written.
  plan     per file whether it is chosen (CheckFlag set and a file present) and whether it
           may be left out (OmitFlag 1), then the station's verdict: OK, a warning, or the
           refusal with the station's own message. The whole package is read and checked
           as verify does, by the station's own rules; only what depends on the station's
           disk (free space, the length of the extraction path) is left to Start.

Names from the package are shown with control characters and invisible direction
marks escaped (\x1B, \u202E), so a name cannot change what the terminal shows.

Examples:
  quorvel-pac verify firmware.pac                 is the package intact?
  quorvel-pac extract firmware.pac /tmp/images    unpack it for a look at the images
  quorvel-pac plan --json firmware.pac            what would the station download?

Exit status:
  0  success (plan: the station would accept the package, perhaps with a warning)
  1  the package failed a check; the station's message is printed on standard error
  2  the command line was not understood
)HELP";

// Draws a bar on standard error when it is a terminal.
class ProgressBar {
public:
    explicit ProgressBar(bool enabled) : enabled_(enabled && ::isatty(STDERR_FILENO)) {}
    ~ProgressBar() { Finish(); }
    void Show(int percent) {
        if (!enabled_ || percent == last_) return;
        last_ = percent;
        const int width = 40;
        const int filled = percent * width / 100;
        std::fprintf(stderr, "\r[%s%s] %3d%%", std::string(static_cast<std::size_t>(filled), '#').c_str(),
                     std::string(static_cast<std::size_t>(width - filled), ' ').c_str(), percent);
        std::fflush(stderr);
        drawn_ = true;
    }
    void Finish() {
        if (drawn_) std::fputc('\n', stderr);
        drawn_ = false;
    }

private:
    bool enabled_;
    bool drawn_ = false;
    int last_ = -1;
};

// The station's message boxes become lines on standard error.
class ToolUi final : public app::ConsoleUi {
public:
    explicit ToolUi(ProgressBar& bar) : bar_(bar) {}
    void MessageBox(const std::string& text) override {
        std::lock_guard g(mutex_);
        bar_.Finish();
        messages.push_back(text);
    }
    bool RunSettingsDialog(app::SettingsDialogLogic&) override { return false; }
    void RunAboutDialog(app::AboutDialogLogic&) override {}
    std::vector<std::string> messages;

private:
    std::mutex mutex_;
    ProgressBar& bar_;
};

// The preparation window as the extraction sees it: notices move the bar.
class BarWindow final : public app::MessageWindow {
public:
    explicit BarWindow(ProgressBar& bar) : bar_(bar) {}
    platform::LResult Send(app::Message message) override {
        std::visit(app::Overloaded{
                       [&](const app::PacStarted&) { bar_.Show(0); },
                       [&](const app::PacPercent& m) { bar_.Show(m.percent); },
                       [&](const app::PacEnded& m) {
                           if (m.ok) bar_.Show(100);
                       },
                       [](const auto&) {},
                   },
                   message);
        return 0;
    }
    void Post(app::Message message) override { Send(std::move(message)); }
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}

private:
    ProgressBar& bar_;
};

std::string Field(const char16_t* f, std::size_t n) {
    std::size_t len = 0;
    while (len < n && f[len] != 0) ++len;
    return Utf16ToUtf8Lossy(f, len);
}
#define FIELD(x) Field(x, sizeof(x) / sizeof((x)[0]))

// A text from the package as a terminal may show it: control characters (C0, DEL, C1)
// and the invisible direction and format marks that reorder or hide what follows are
// written as escapes, so a name cannot move the cursor, recolour the terminal or
// disguise itself. Bytes that are not UTF-8 were replaced when the text was read.
std::string Shown(const std::string& text) {
    std::string out;
    char buf[16];
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const std::size_t len = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        std::uint32_t cp = len == 1 ? c : c & (0x7F >> len);
        for (std::size_t k = 1; k < len && i + k < text.size(); ++k)
            cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        const bool control = cp < 0x20 || (cp >= 0x7F && cp <= 0x9F);
        const bool mark = cp == 0x061C || cp == 0x200B || cp == 0x200E || cp == 0x200F ||
                          (cp >= 0x202A && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069) || cp == 0xFEFF;
        if (control && cp < 0x100) {
            std::snprintf(buf, sizeof buf, "\\x%02X", static_cast<unsigned>(cp));
            out += buf;
        } else if (mark) {
            std::snprintf(buf, sizeof buf, "\\u%04X", static_cast<unsigned>(cp));
            out += buf;
        } else {
            out.append(text, i, len);
        }
        i += len;
    }
    return out;
}

// A message of the station's, which may quote a name from the package: its own line
// breaks stay.
std::string ShownLines(const std::string& message) {
    std::string shown;
    for (std::size_t start = 0; start <= message.size();) {
        const std::size_t nl = std::min(message.find('\n', start), message.size());
        shown += (start ? "\n" : "") + Shown(message.substr(start, nl - start));
        start = nl + 1;
    }
    return shown;
}

// printf's %-Ns pads by bytes; columns are counted in characters.
std::string Column(const std::string& text, std::size_t width) {
    std::size_t chars = 0;
    for (unsigned char c : text) chars += (c & 0xC0) != 0x80;
    return chars >= width ? text : text + std::string(width - chars, ' ');
}

int Fail(bool json, const std::string& command, const std::string& message) {
    if (json)
        std::printf("{\"command\":%s,\"ok\":false,\"message\":%s}\n", platform::JsonQuote(command).c_str(),
                    platform::JsonQuote(message).c_str());
    std::fprintf(stderr, "%s\n", ShownLines(message).c_str());
    return kExitPackage;
}

int List(const std::string& path, bool json) {
    PacContents c;
    std::string message;
    if (!ReadPacContents(path, c, message)) return Fail(json, "list", message);
    const PacHeader& h = c.header;
    if (json) {
        std::printf(
            "{\"command\":\"list\",\"ok\":true,\"version\":%s,\"packageSize\":%u,\"productName\":%s,"
            "\"productVersion\":%s,\"productAlias\":%s,\"fileCount\":%d,\"repartitionFlag\":%u,"
            "\"repartitionMode\":%u,\"nvBackupFlag\":%u,\"crc\":%s,\"headerCrc\":%u,\"dataCrc\":%u,\"files\":[",
            platform::JsonQuote(FIELD(h.Version)).c_str(), h.PackageSize,
            platform::JsonQuote(FIELD(h.ProductName)).c_str(), platform::JsonQuote(FIELD(h.ProductVersion)).c_str(),
            platform::JsonQuote(FIELD(h.ProductAlias)).c_str(), h.FileCount, h.RepartitionFlag, h.RepartitionMode,
            h.NvBackupFlag, PacCrcOn(h) ? "true" : "false", h.HeaderCrc, h.DataCrc);
        for (std::size_t i = 0; i < c.table.size(); ++i) {
            const PacFileEntry& e = c.table[i];
            std::printf(
                "%s{\"index\":%zu,\"id\":%s,\"name\":%s,\"size\":%u,\"fileFlags\":%u,\"checkFlag\":%u,"
                "\"omitFlag\":%u}",
                i ? "," : "", i, platform::JsonQuote(FIELD(e.FileId)).c_str(),
                platform::JsonQuote(FIELD(e.FileName)).c_str(), e.FileSize, e.FileFlags, e.CheckFlag, e.OmitFlag);
        }
        std::printf("]}\n");
        return kExitOk;
    }
    std::printf("Package          %s\n", path.c_str());
    std::printf("Version          %s\n", Shown(FIELD(h.Version)).c_str());
    std::printf("Product          %s (as the station names it)\n", Shown(FIELD(h.ProductName)).c_str());
    std::printf("Product version  %s\n", Shown(FIELD(h.ProductVersion)).c_str());
    std::printf("Product alias    %s\n", Shown(FIELD(h.ProductAlias)).c_str());
    std::printf("Package size     %u bytes\n", h.PackageSize);
    std::printf("Repartition      flag %u, mode %u\n", h.RepartitionFlag, h.RepartitionMode);
    std::printf("NV backup        %u\n", h.NvBackupFlag);
    if (PacCrcOn(h))
        std::printf("CRCs             present (header 0x%04X, data 0x%04X)\n", h.HeaderCrc, h.DataCrc);
    else
        std::printf("CRCs             none (Magic 0x%08X)\n", h.Magic);
    std::printf("Files            %d\n\n", h.FileCount);
    std::printf("%4s  %-20s %-32s %12s %5s %5s %5s\n", "#", "FileId", "FileName", "Size", "Flags", "Check", "Omit");
    for (std::size_t i = 0; i < c.table.size(); ++i) {
        const PacFileEntry& e = c.table[i];
        std::printf("%4zu  %s %s %12u %5u %5u %5u\n", i, Column(Shown(FIELD(e.FileId)), 20).c_str(),
                    Column(Shown(FIELD(e.FileName)), 32).c_str(), e.FileSize, e.FileFlags, e.CheckFlag, e.OmitFlag);
    }
    return kExitOk;
}

int Verify(const std::string& path, bool json, bool progress) {
    ProgressBar bar(progress);
    PacVerification v;
    std::string message;
    const bool ok = VerifyPac(path, v, message, [&bar](int p) { bar.Show(p); });
    bar.Finish();
    if (!ok) return Fail(json, "verify", message);
    if (json) {
        std::printf(
            "{\"command\":\"verify\",\"ok\":true,\"crc\":%s,\"headerCrcOk\":%s,\"dataCrcOk\":%s,\"dataBytes\":%llu}\n",
            v.crcPresent ? "true" : "false", v.headerCrcOk ? "true" : "false", v.dataCrcOk ? "true" : "false",
            static_cast<unsigned long long>(v.dataBytes));
        return kExitOk;
    }
    if (v.crcPresent)
        std::printf("OK: header CRC and data CRC match (%llu bytes of data)\n",
                    static_cast<unsigned long long>(v.dataBytes));
    else
        std::printf("OK: all data present (%llu bytes); the package carries no CRCs, so none were checked\n",
                    static_cast<unsigned long long>(v.dataBytes));
    return kExitOk;
}

int Extract(const std::string& path, const std::string& folder, bool json, bool progress) {
    ProgressBar bar(progress);
    ToolUi ui(bar);
    BarWindow window(bar);
    platform::SystemClock clock;
    CBinPack pack(ui.Teller(), clock, &window);
    PacHeader header = EmptyPacHeader();
    std::vector<PacFileEntry> table;
    // A technician names a folder to unpack into; make it as `mkdir -p` would.
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    int ok = pack.Open(path);
    if (ok) ok = pack.Unpack(folder.c_str(), &header, &table);
    bar.Finish();
    if (!ok) {
        std::string all;
        for (const auto& m : ui.messages) all += (all.empty() ? "" : "\n") + m;
        if (all.empty()) all = "Extraction failed";
        return Fail(json, "extract", all);
    }
    std::vector<std::string> files;
    for (const auto& e : table)
        if (e.FileSize != 0) files.push_back(FIELD(e.FileName));
    if (!pack.GetLastFilePath().empty() && (files.empty() || files.back() != pack.GetLastFilePath()))
        files.push_back(pack.GetLastFilePath());
    if (json) {
        std::printf("{\"command\":\"extract\",\"ok\":true,\"folder\":%s,\"configFile\":%s,\"files\":[",
                    platform::JsonQuote(pack.GetOutputFolder()).c_str(),
                    platform::JsonQuote(pack.GetLastFilePath()).c_str());
        for (std::size_t i = 0; i < files.size(); ++i)
            std::printf("%s%s", i ? "," : "", platform::JsonQuote(files[i]).c_str());
        std::printf("]}\n");
        return kExitOk;
    }
    std::printf("Extracted into %s\n", Shown(pack.GetOutputFolder()).c_str());
    for (const auto& f : files) std::printf("  %s\n", Shown(f).c_str());
    if (!pack.GetLastFilePath().empty()) std::printf("Configuration file: %s\n", Shown(pack.GetLastFilePath()).c_str());
    return kExitOk;
}

const char* VerdictName(SprdSelection::Verdict v) {
    switch (v) {
        case SprdSelection::SELECTION_OK: return "ok";
        case SprdSelection::SELECTION_WARN_MISSING: return "warning";
        case SprdSelection::SELECTION_FAIL_FLASH: return "refused-flash-not-chosen";
        case SprdSelection::SELECTION_FAIL_NO_NV: return "refused-no-nv";
        case SprdSelection::SELECTION_FAIL_NO_NV_BACKUP: return "refused-no-nv-backup";
        case SprdSelection::SELECTION_FAIL_REPARTITION: return "refused-repartition";
    }
    return "";
}

int Plan(const std::string& path, bool json, bool progress) {
    // The whole package is read and checked as the station's extraction checks it, so
    // the verdict is the station's: a package it refuses is never "ok" here.
    PacContents c;
    std::string message;
    {
        ProgressBar bar(progress);
        PacVerification v;
        const bool ok = VerifyPac(
            path, v, message, [&bar](int p) { bar.Show(p); }, &c);
        bar.Finish();
        if (!ok) {
            if (!json) std::printf("Verdict: refused-package\n");
            return Fail(json, "plan", message);
        }
    }
    // As after extraction: the unnamed entries with data are dropped from the end.
    c.header.FileCount = static_cast<std::int32_t>(HandedOnCount(c.table));
    SprdSelection s;
    if (!SelectSprdFiles(c.header, c.table, s, message)) {
        if (!json) std::printf("Verdict: refused-package\n");
        return Fail(json, "plan", message);
    }
    std::vector<PacFileEntry>().swap(c.table);  // the selection holds what is shown
    std::string product;
    ReadField(c.header.ProductName, product);
    const std::string explanation =
        s.verdict == SprdSelection::SELECTION_FAIL_FLASH
            ? "The package has a FLASH file but none is chosen; the station stops without a message."
            : s.message;
    if (json) {
        std::printf("{\"command\":\"plan\",\"ok\":%s,\"productName\":%s,\"selectedFileCount\":%d,\"files\":[",
                    s.Passed() ? "true" : "false", platform::JsonQuote(product).c_str(), s.selectedCount);
        for (std::size_t i = 0; i < s.files.size(); ++i)
            std::printf(
                "%s{\"index\":%zu,\"id\":%s,\"name\":%s,\"size\":%u,\"checkFlag\":%u,\"chosen\":%s,"
                "\"omittable\":%s}",
                i ? "," : "", i, platform::JsonQuote(s.files[i].FileId).c_str(),
                platform::JsonQuote(s.files[i].FilePath).c_str(), s.files[i].FileSize, s.files[i].CheckFlag,
                s.chosen[i] ? "true" : "false", s.omittable[i] ? "true" : "false");
        std::printf("],\"missingFileList\":%s,\"repartitions\":%s,\"verdict\":%s,\"message\":%s}\n",
                    platform::JsonQuote(s.missingFileList).c_str(), s.repartitions ? "true" : "false",
                    platform::JsonQuote(VerdictName(s.verdict)).c_str(), platform::JsonQuote(explanation).c_str());
    } else {
        std::printf("Product %s: %d of %zu files chosen for download\n\n", Shown(product).c_str(), s.selectedCount,
                    s.files.size());
        std::printf("%4s  %-20s %-32s %12s  %s\n", "#", "FileId", "FileName", "Size", "Download");
        for (std::size_t i = 0; i < s.files.size(); ++i)
            std::printf("%4zu  %s %s %12u  %s\n", i, Column(Shown(s.files[i].FileId), 20).c_str(),
                        Column(Shown(s.files[i].FilePath), 32).c_str(), s.files[i].FileSize,
                        s.chosen[i] ? "yes" : (s.omittable[i] ? "no (may be left out)" : "NO (required)"));
        std::printf("\nRepartitions: %s\n", s.repartitions ? "yes" : "no");
        if (!s.missingFileList.empty()) std::printf("Missing: %s\n", Shown(s.missingFileList).c_str());
        std::printf("Verdict: %s\n", VerdictName(s.verdict));
    }
    if (!explanation.empty()) std::fprintf(stderr, "%s\n", ShownLines(explanation).c_str());
    return s.Passed() ? kExitOk : kExitPackage;
}

// Written beside, then renamed: a station reading the old package never sees half a new one.
int Demo(const std::string& folder) {
    const std::string dir = folder + "/demo", path = dir + "/sprd_demo.pac";
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    const std::string bytes = packages::BuildPac(packages::DemoSprdPac());
    const std::string temporary = path + ".new";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out.flush())
            return std::fprintf(stderr, "quorvel-pac: cannot write %s\n", temporary.c_str()), kExitPackage;
    }
    std::filesystem::rename(temporary, path, ec);
    if (ec)
        return std::fprintf(stderr, "quorvel-pac: cannot write %s: %s\n", path.c_str(), ec.message().c_str()),
               kExitPackage;
    std::printf("%s\n", path.c_str());
    return kExitOk;
}

int Usage(const char* problem) {
    std::fprintf(stderr, "quorvel-pac: %s (quorvel-pac --help tells more)\n", problem);
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false, progress = true;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help" || a == "help") {
            std::fputs(kHelp, stdout);
            return kExitOk;
        }
        if (a == "--json")
            json = true;
        else if (a == "--no-progress")
            progress = false;
        else if (a.size() > 1 && a[0] == '-')
            return Usage(("unknown option " + a).c_str());
        else
            args.push_back(a);
    }
    if (args.empty()) return Usage("no command given");
    const std::string command = args[0];
    const std::size_t operands = args.size() - 1;
    if (command == "list" || command == "verify" || command == "plan") {
        if (operands != 1) return Usage((command + " takes one PACKAGE").c_str());
        if (command == "list") return List(args[1], json);
        if (command == "verify") return Verify(args[1], json, progress);
        return Plan(args[1], json, progress);
    }
    if (command == "extract") {
        if (operands != 2) return Usage("extract takes PACKAGE and FOLDER");
        return Extract(args[1], args[2], json, progress);
    }
    if (command == "demo") {
        if (operands != 1) return Usage("demo takes FOLDER");
        return Demo(args[1]);
    }
    return Usage(("unknown command " + command).c_str());
}
