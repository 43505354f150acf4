#include "engine/ProgramContext.h"

#include <ctime>
#include <filesystem>
#include <fstream>

#include "app/Station.h"
#include "engine/SimEngineProgram.h"

namespace quorvel::engine {

ProgramContext::ProgramContext(app::Station& st, ProgramSettings s, std::function<void(const SwitchEvent&)> hook,
                               SimPhoneRegistry* benchPhones, PortDevices portDevices, std::string profileArgs)
    : station(st),
      settings(std::move(s)),
      switchHook_(std::move(hook)),
      benchPhones_(benchPhones),
      portDevices_(std::move(portDevices)),
      profileArgs_(" " + profileArgs + " ") {}

std::string ProgramContext::LogPath(const char* platform, const std::string& unit) {
    const std::time_t now = static_cast<std::time_t>(station.clock.WallSeconds());
    std::tm tm{};
    localtime_r(&now, &tm);
    char name[96];
    std::snprintf(name, sizeof name, "%s_%s_%04d%02d%02d-%02d%02d%02d_%u.log", platform, unit.c_str(),
                  tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ++jobs_);
    return station.ExeDir() + "TestLog/engine/" + name;
}

bool ProgramContext::MakeJob(const std::string& commandLine, const char* platform, int slot,
                             std::map<std::string, std::string> values, const std::vector<std::string>& options,
                             const std::vector<std::string>* files, JobRequest& request, std::string& error) {
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
        const std::string listPath = request.logPath.substr(0, request.logPath.size() - 4) + ".files";
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(listPath).parent_path(), ec);
        std::ofstream out(listPath, std::ios::trunc);
        for (const auto& line : *files) out << line << '\n';
        values["files"] = listPath;
    }
    request.argv = ExpandCommandLine(args, values, options);
    if (benchPhones_ && profileArgs_.find(" " + std::string(platform) + " ") != std::string::npos) {
        const PhoneProfile p = std::string(platform) == "SPRD"
                                   ? benchPhones_->ForPort(std::strtoul(values["port"].c_str(), nullptr, 10))
                                   : benchPhones_->ForDevice(values["device"]);
        for (auto& a : SimProfileArgs(p)) request.argv.push_back(std::move(a));
    }
    request.silenceMs = settings.silenceMs;
    request.graceMs = kProgramGraceMs;
    request.record = settings.record;
    return true;
}

bool ProgramContext::MakeOperation(const std::string& commandLine, const char* platform,
                                   const std::vector<std::string>& operation, const std::string& package,
                                   const std::vector<std::string>& options, JobRequest& request, std::string& error) {
    const std::vector<std::string> noFiles;
    if (!MakeJob(commandLine, platform, -1,
                 {{"port", ""}, {"node", ""}, {"device", ""}, {"location", ""}, {"package", package}, {"phase", "1"}},
                 options, &noFiles, request, error))
        return false;
    request.argv.insert(request.argv.begin() + 1, operation.begin(), operation.end());
    request.progressIntervalMs = 0;
    return true;
}

BenchPhone::BenchPhone(const ProgramContext& context, const std::string& device, unsigned long port, ProgramJob& job)
    : registry_(context.BenchPhones()) {
    if (!registry_) return;
    plug_ = device.empty() ? registry_->ForPort(port).plug : registry_->ForDevice(device).plug;
    link_ = std::make_unique<SimPhoneRegistry::Link>(*registry_, plug_, [&job] { job.Cancel(); });
}

void BenchPhone::Result(bool failed) const {
    if (registry_) registry_->JobResult(plug_, failed);
}

}  // namespace quorvel::engine
