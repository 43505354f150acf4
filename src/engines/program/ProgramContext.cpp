#include "engines/program/ProgramContext.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "platform/AtomicFile.h"
#include "platform/ChildProcess.h"
#include "platform/ErrnoText.h"
#include "platform/JsonText.h"
#include "station/Station.h"

namespace quorvel::engine {

namespace {
bool HasControlCharacter(const std::string& text) {
    for (const unsigned char c : text)
        if (c < 0x20 || c == 0x7f) return true;
    return false;
}
}  // namespace

ProgramContext::ProgramContext(app::Station& st, ProgramSettings s, std::function<void(const SwitchEvent&)> hook,
                               BenchPhones* benchPhones, PortDevices portDevices, std::string profileArgs)
    : station(st),
      settings(std::move(s)),
      switchHook_(std::move(hook)),
      benchPhones_(benchPhones),
      portDevices_(std::move(portDevices)),
      profileArgs_(" " + std::move(profileArgs) + " ") {
    if (station.ExeDir().empty()) return;
    // Programs a killed station left running hold their phones: they go before any job.
    if (const int ended = platform::ChildProcess::EndLeftovers(station.ExeDir() + kRunningFolder); ended > 0) {
        const std::string text =
            "ended " + std::to_string(ended) + " engine program process(es) left running by an earlier station";
        std::fprintf(stderr, "quorvel: %s\n", text.c_str());
        station.settingsStore.UiLog(text);
    }
    CleanEngineLogs(station.ExeDir() + kLogFolder, station.clock.WallSeconds());
}

int CleanEngineLogs(const std::string& folder, std::int64_t now, std::int64_t maxAgeSeconds, std::uint64_t maxBytes) {
    namespace fs = std::filesystem;
    struct Log {
        fs::path path;
        std::int64_t mtime;
        std::uint64_t size;
    };
    std::vector<Log> logs;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string ext = it->path().extension().string();
        struct stat st {};
        if ((ext != ".log" && ext != ".files") || ::lstat(it->path().c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        logs.push_back({it->path(), static_cast<std::int64_t>(st.st_mtime), static_cast<std::uint64_t>(st.st_size)});
    }
    std::sort(logs.begin(), logs.end(), [](const Log& a, const Log& b) { return a.mtime > b.mtime; });  // newest first
    std::uint64_t kept = 0;
    int removed = 0;
    for (const Log& l : logs) {
        if (now - l.mtime > maxAgeSeconds || kept + l.size > maxBytes) {
            removed += ::unlink(l.path.c_str()) == 0 ? 1 : 0;
            continue;
        }
        kept += l.size;
    }
    return removed;
}

std::string ProgramContext::LogPath(const char* platform, const std::string& unit) {
    // Now and then while the station runs, not only at its start.
    if (jobs_ % kCleanEveryJobs == kCleanEveryJobs - 1)
        CleanEngineLogs(station.ExeDir() + kLogFolder, station.clock.WallSeconds());
    const std::time_t now = static_cast<std::time_t>(station.clock.WallSeconds());
    std::tm tm{};
    localtime_r(&now, &tm);
    char name[96];
    std::snprintf(name, sizeof name, "%s_%s_%04d%02d%02d-%02d%02d%02d_%u.log", platform, unit.c_str(),
                  tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ++jobs_);
    return station.ExeDir() + kLogFolder + name;
}

std::map<std::string, std::string> ProgramContext::PhoneValues(const app::DeviceInfo& device,
                                                               const std::string& package) const {
    const int com = ExtractComNumber(device.friendlyName);
    return {{"port", std::to_string(com)}, {"node", com > 0 ? DeviceOfPort(static_cast<unsigned long>(com)).node : ""},
            {"device", device.instanceId}, {"location", device.location},
            {"package", package},          {"phase", "1"}};
}

bool ProgramContext::MakeJob(const std::string& commandLine, const char* platform, int slot,
                             std::map<std::string, std::string> values, const std::vector<std::string>& options,
                             const FileRows* files, JobRequest& request, std::string& error) {
    std::vector<std::string> args;
    if (!SplitCommandLine(commandLine, args, error)) {
        error = "engine program command line: " + error;
        return false;
    }
    args[0] = ResolveProgram(args[0], station.ExeDir());
    char unit[32];
    if (slot >= 0)
        std::snprintf(unit, sizeof unit, "slot%02d", slot);
    else if (values["port"].empty())
        std::snprintf(unit, sizeof unit, "package");
    else
        std::snprintf(unit, sizeof unit, "com%s", values["port"].c_str());
    request.logPath = LogPath(platform, unit);
    values["platform"] = platform;
    values["slot"] = slot >= 0 ? std::to_string(slot) : "";
    values["log"] = request.logPath;
    values["record"] = settings.record ? "--record" : "";
    if (files && commandLine.find("{files}") != std::string::npos) {
        std::string list;
        for (const auto& row : *files) {
            for (std::size_t i = 0; i < row.size(); ++i) {
                if (HasControlCharacter(row[i])) {
                    error = "package file name holds a tab or line break, refused: " + platform::JsonQuote(row[i]);
                    return false;
                }
                list += (i ? "\t" : "") + row[i];
            }
            list += '\n';
        }
        const std::string listPath = request.logPath.substr(0, request.logPath.size() - 4) + ".files";
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(listPath).parent_path(), ec);
        if (!platform::ReplaceFileAtomically(listPath, list)) {
            error = "engine program's file list not written: " + listPath + ": " + platform::ErrnoText(errno);
            return false;
        }
        values["files"] = listPath;
    }
    request.argv = ExpandCommandLine(args, values, options);
    if (benchPhones_ && profileArgs_.find(" " + std::string(platform) + " ") != std::string::npos) {
        const bool sprd = std::string(platform) == "SPRD";
        for (auto& a :
             benchPhones_->ProfileArgs(sprd ? "" : values["device"], std::strtoul(values["port"].c_str(), nullptr, 10)))
            request.argv.push_back(std::move(a));
    }
    if (!station.ExeDir().empty()) request.recordDir = station.ExeDir() + kRunningFolder;
    request.silenceMs = settings.silenceMs;
    request.graceMs = kProgramGraceMs;
    request.record = settings.record;
    return true;
}

bool ProgramContext::MakeOperation(const std::string& commandLine, const char* platform,
                                   const std::vector<std::string>& operation, const std::string& package,
                                   const std::vector<std::string>& options, JobRequest& request, std::string& error) {
    const FileRows noFiles;
    if (!MakeJob(commandLine, platform, -1,
                 {{"port", ""}, {"node", ""}, {"device", ""}, {"location", ""}, {"package", package}, {"phase", "1"}},
                 options, &noFiles, request, error))
        return false;
    request.argv.insert(request.argv.begin() + 1, operation.begin(), operation.end());
    request.progressIntervalMs = 0;
    return true;
}

BenchPhone::BenchPhone(const ProgramContext& context, const std::string& device, unsigned long port, ProgramJob& job) {
    if (auto* phones = context.Phones()) hold_ = phones->HoldPhone(device, port, [&job] { job.Cancel(); });
}

}  // namespace quorvel::engine
