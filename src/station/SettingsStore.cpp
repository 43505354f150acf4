#include "station/SettingsStore.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/DayLog.h"
#include "platform/ErrnoText.h"
#include "platform/ExeDir.h"
#include "platform/MachineStamp.h"
#include "platform/ProfileIni.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::app {

using platform::ParseUnsigned;
using platform::ProfileIni;

namespace {
constexpr std::size_t kOptionBuffer = 64;
constexpr std::size_t kPathBuffer = 260;
const char* const kHsSection = "USBPORTINFO";
const char* const kLsSection = "BROMPORTINFO";
const char* const kComSection = "COM";
const char* const kStateSection = "THREADSTATUS";

std::string SlotKey(int slot) {
    return "Index" + std::to_string(slot);
}

// Reads the values of one parsed file; an unreadable one reads as empty, as the
// platform's reader does (its writes then fail and say so).
class Reader {
public:
    explicit Reader(const std::string& path) : doc_(ProfileIni::Load(path)) {
        if (!doc_) doc_ = std::make_shared<const platform::ProfileDocument>(std::string());
    }
    std::string Text(const char* section, const char* key, std::size_t buffer) const {
        return ProfileIni::ReadStringFrom(*doc_, section, key, "", buffer);
    }
    // Converted only when non-empty, so an absent key keeps the built-in value.
    void Number(const char* section, const char* key, std::uint32_t& value) const {
        auto text = Text(section, key, kOptionBuffer);
        if (!text.empty()) value = ParseUnsigned(text);
    }

private:
    std::shared_ptr<const platform::ProfileDocument> doc_;
};
}  // namespace

SettingsStore::SettingsStore(Station& station, MachineStampSource machineStamp)
    : station_(station),
      machineStamp_(machineStamp ? std::move(machineStamp)
                                 : MachineStampSource([] { return platform::FirstAdapterMac(); })) {}

std::string SettingsStore::FilePath() const {
    return station_.ConfigPath("CommonSetting.ini");
}

std::string SettingsStore::MissingFileProblem() const {
    struct stat st {};
    if (::stat(FilePath().c_str(), &st) == 0 && S_ISREG(st.st_mode)) return {};
    const int error = errno == 0 ? ENOENT : errno;
    char text[512];
    std::snprintf(text, sizeof text, texts::kConfigFileMissingFormat, FilePath().c_str(), error);
    return text;
}

int SettingsStore::LanguageLoad() {
    if (!MissingFileProblem().empty()) return 0;
    const Reader r(FilePath());
    std::uint32_t language = station_.language.LanguageId();
    r.Number("COMMON", "LANGUAGE", language);
    station_.language.SetLanguageId(language);
    r.Number("COMMON", "BackupandRestore", station_.settings.BackupandRestore);
    return 1;
}

int SettingsStore::SettingsLoad() {
    if (!MissingFileProblem().empty()) return 0;
    const Reader r(FilePath());
    Settings& s = station_.settings;

    r.Number("COMMON", "NVDATAZIP", s.NVDATAZIP);
    r.Number("COMMON", "EnableDebug", s.EnableDebug);
    r.Number("COMMON", "CleanBinRegionData", s.CleanBinRegionData);
    r.Number("COMMON", "MTK_UPGRADE_BK_NV", s.MTK_UPGRADE_BK_NV);
    r.Number("COMMON", "CheckVersion", s.CheckVersion);
    r.Number("COMMON", "CheckSum", s.CheckSum);
    r.Number("COMMON", "BromLog", s.BromLog);
    s.FlashCheckSum = ParseUnsigned(r.Text("COMMON", "FlashCheckSum", kOptionBuffer));
    r.Number("COMMON", "ForceWatchdogReset", s.ForceWatchdogReset);
    r.Number("COMMON", "EnableAutoPulling", s.EnableAutoPulling);
    r.Number("COMMON", "SleepTimeRestart", s.SleepTimeRestart);
    r.Number("COMMON", "Battery", s.Battery);
    s.DA_BR = r.Text("COMMON", "DA_BR", kOptionBuffer);
    s.DA_PL = r.Text("COMMON", "DA_PL", kOptionBuffer);
    s.MTK_BK_NVRAM_FILENAME = r.Text("COMMON", "MTK_BK_NVRAM_FILENAME", kOptionBuffer);
    s.MTK_BK_PROINFO_FILENAME = r.Text("COMMON", "MTK_BK_PROINFO_FILENAME", kOptionBuffer);
    const std::string services = r.Text("COMMON", "MTK_SERVICE_NAME", kOptionBuffer);
    r.Number("MEMORYTEST", "DataBus", s.memoryTest.DataBus);
    r.Number("MEMORYTEST", "AddrBus", s.memoryTest.AddrBus);
    r.Number("MEMORYTEST", "PatternTest", s.memoryTest.PatternTest);
    r.Number("MEMORYTEST", "IncDecTest", s.memoryTest.IncDecTest);
    r.Number("MEMORYTEST", "PatternNum", s.memoryTest.PatternNum);
    std::uint32_t simulated = 0;
    r.Number("BENCH", "Simulated", simulated);
    s.simulatedBench = simulated != 0;
    r.Number("BENCH", "Hubs", s.benchHubs);
    r.Number("BENCH", "SocketsPerHub", s.benchSocketsPerHub);
    std::uint32_t autoPhones = 0;
    r.Number("BENCH", "Auto", autoPhones);
    s.benchAuto = autoPhones != 0;
    s.benchScenario = r.Text("BENCH", "Scenario", kPathBuffer);
    std::uint32_t nativeSprd = 0;
    r.Number("BENCH", "NativeSprd", nativeSprd);
    s.benchNativeSprd = nativeSprd != 0;
    std::uint32_t sound = 0;
    r.Number("UI", "Sound", sound);
    s.soundCue = sound != 0;
    // An absent key keeps the built-in aliases; a given one replaces them all.
    if (const std::string drivers = r.Text("BENCH", "ServiceDrivers", kOptionBuffer); !drivers.empty()) {
        s.serviceDrivers.clear();
        for (std::size_t start = 0; start < drivers.size();) {
            auto comma = drivers.find(',', start);
            if (comma == std::string::npos) comma = drivers.size();
            const std::string pair = drivers.substr(start, comma - start);
            if (const auto colon = pair.find(':'); colon != std::string::npos && colon > 0)
                s.serviceDrivers[pair.substr(0, colon)] = pair.substr(colon + 1);
            start = comma + 1;
        }
    }

    s.ServiceNameList.clear();
    for (std::size_t start = 0; start <= services.size();) {
        auto comma = services.find(',', start);
        if (comma == std::string::npos) comma = services.size();
        if (comma > start) s.ServiceNameList.push_back(services.substr(start, comma - start));
        start = comma + 1;
    }

    BindingTable& table = station_.bindings;
    for (int n = 0; n < kSlotCount; ++n) {
        table.SetHsLocation(n, "");
        table.SetLsLocation(n, "");
        table.SetComName(n, "");
    }

    const std::string stored = r.Text("COMMON", "Mac", kOptionBuffer);
    const std::string computed = MachineStamp();
    const bool macWritten = ProfileIni::WriteString(FilePath(), "COMMON", "Mac", computed);
    const int macError = errno;

    if (stored == computed) {
        for (int n = 0; n < kSlotCount; ++n) {
            const std::string hs = r.Text(kHsSection, SlotKey(n).c_str(), kPathBuffer);
            std::string ls = r.Text(kLsSection, SlotKey(n).c_str(), kPathBuffer);
            if (hs != kUnbound) {
                table.SetState(n, ls != kUnbound ? BindState::AllBinded : BindState::PreloaderBinded);
            } else {
                ls = kUnbound;
            }
            table.SetLsLocation(n, ls);
            table.SetHsLocation(n, hs);
            table.SetComName(n, r.Text(kComSection, SlotKey(n).c_str(), kPathBuffer));
        }

        const std::string path = r.Text("COMMON", "FilePath", kPathBuffer);
        PackageSelection& pkg = station_.package;
        auto shown = [&] {
            station_.view.SetPane(0, station_.language.ChooseText(texts::kSoftwarePath) + " \"" + path + "\"");
            station_.view.SetText(IDC_PATH_BANNER, path);
        };
        if (path.find("scatter.txt") != std::string::npos) {
            pkg.kind = PackageKind::MtkScatter;
            pkg.firmwareFolder = platform::FolderOf(path);
            pkg.scatterFilePath = path;
            shown();
        }
        if (path.find(".cfg") != std::string::npos) {
            pkg.kind = PackageKind::MtkCfg;
            pkg.cfgFolder = platform::FolderOf(path);
            pkg.cfgFilePath = path;
            shown();
        }
        if (path.find(".pac") != std::string::npos) {
            pkg.kind = PackageKind::SprdPac;
            pkg.pacFolder = platform::FolderOf(path);
            pkg.pacFilePath = path;
            shown();
        }
        s.HasScan = ParseUnsigned(r.Text("COMMON", "HasScan", kPathBuffer));
        station_.statistics.StatisticsLoad();
    } else {
        for (int n = 0; n < kSlotCount; ++n) {
            table.SetHsLocation(n, kUnbound);
            table.SetLsLocation(n, kUnbound);
            table.SetComName(n, kUnbound);
        }
        s.HasScan = 0;
        station_.view.SetText(IDC_TOTAL, "0");
        station_.view.SetText(IDC_FAILURES, "0");
        station_.view.SetText(IDC_PASS_RATE, "0");
    }
    // Said after the package path, so the status bar keeps the failure.
    errno = macError;
    Written(FilePath(), macWritten);
    return 1;
}

void SettingsStore::LanguageSave() {
    std::lock_guard g(settingsLock_);
    Written(FilePath(), ProfileIni::WriteString(FilePath(), "COMMON", "LANGUAGE",
                                                station_.language.LanguageId() == kLangEnglish ? "1033" : "2052"));
}

bool SettingsStore::BenchViewLoad() const {
    return ProfileIni::ReadInt(FilePath(), "UI", "BenchView", 0) != 0;
}

void SettingsStore::BenchViewSave(bool on) {
    std::lock_guard g(settingsLock_);
    Written(FilePath(), ProfileIni::WriteString(FilePath(), "UI", "BenchView", on ? "1" : "0"));
}

void SettingsStore::SaveBindings() {
    std::lock_guard g(settingsLock_);
    std::vector<ProfileIni::Write> writes;
    writes.reserve(4 * kSlotCount + 2);
    for (int n = 0; n < kSlotCount; ++n) {
        const auto e = station_.bindings.Get(n);
        const std::string key = SlotKey(n);
        writes.push_back({kHsSection, key, e.hs});
        writes.push_back({kComSection, key, e.com});
        writes.push_back({kLsSection, key, e.ls});
        writes.push_back({kStateSection, key, BindStateName(e.state)});
    }
    const PackageSelection& pkg = station_.package;
    if (pkg.kind == PackageKind::MtkScatter)
        writes.push_back({"COMMON", "HasScan", station_.settings.HasScan ? "1" : "0"});
    if (pkg.kind != PackageKind::None) writes.push_back({"COMMON", "FilePath", pkg.ActivePath()});
    // One atomic replacement: a crash leaves either the old or the new table.
    Written(FilePath(), ProfileIni::WriteMany(FilePath(), writes));
}

void SettingsStore::Written(const std::string& path, bool ok) {
    if (ok) return;
    const int error = errno;
    {
        std::lock_guard g(reportedLock_);
        if (!reported_.insert(path).second) return;
    }
    char text[1024];
    std::snprintf(text, sizeof text, texts::kFileWriteFailedFormat, path.c_str(), platform::ErrnoText(error).c_str());
    std::fprintf(stderr, "%s\n", text);
    if (station_.settings.EnableDebug) UiLog(text);
    station_.view.SetPane(0, text);
}

std::string SettingsStore::MachineStamp() const {
    return machineStamp_();
}

void SettingsStore::UiLog(const std::string& text) const {
    platform::AppendDayLog(station_.ExeDir(), station_.clock.WallSeconds(), text);
}

}  // namespace quorvel::app
