#include "sim/SimEngineProgram.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "engines/program/ProgramSettings.h"
#include "platform/ExeDir.h"

namespace quorvel::engine {

std::string FindBenchProgram(const std::string& stationDir, const std::string& name) {
    const std::string here = platform::ExeDir();
    for (const std::string& path :
         {stationDir + name, here + name, here + "../" + name + "/" + name, here + "../tools/" + name + "/" + name}) {
        if (::access(path.c_str(), X_OK) == 0) return path;
    }
    return name;
}

std::string NativeSprdRunDir() {
    std::error_code ec;
    std::string tmp = std::filesystem::temp_directory_path(ec).string();
    if (tmp.empty() || tmp.size() > 40) tmp = "/tmp";
    return tmp + "/quorvel-sprd-" + std::to_string(::getpid());
}

std::string NativeSprdCommandLine(const std::string& program, const std::string& runDir) {
    return "\"" + program + "\" --package {package} --files {files} --phase {phase} --transport \"unix:" + runDir +
           "/com{port}.sock\" {record} {options}";
}

std::string SimEngineCommandLine(const std::string& program, const char* platform, double timeScale) {
    char scale[32];
    std::snprintf(scale, sizeof scale, "%g", timeScale > 0 ? timeScale : 1.0);
    std::string line = "\"" + program + "\" --platform " + platform + " --time-scale " + scale + " --package {package}";
    line += std::string(platform) == "SPRD" ? " --phase {phase}" : " --device {device}";
    return line;
}

bool IsNativeSprdOverUsb(const std::string& commandLine) {
    std::vector<std::string> args;
    std::string error;
    if (!SplitCommandLine(commandLine, args, error) || args.empty()) return false;
    const std::string& program = args[0];
    const auto slash = program.find_last_of('/');
    if (program.substr(slash == std::string::npos ? 0 : slash + 1) != kSprdFlashProgram) return false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        std::string transport;
        if (args[i] == "--transport" && i + 1 < args.size()) transport = args[i + 1];
        if (args[i].rfind("--transport=", 0) == 0) transport = args[i].substr(12);
        if (!transport.empty() && transport != "usb") return false;
    }
    return true;
}

std::vector<std::string> SimProfileArgs(const PhoneProfile& p) {
    std::vector<std::string> a{
        "--duration", std::to_string(p.durationMs), "--size",        std::to_string(p.sizeBytes),
        "--speed",    std::to_string(p.speedMBps),  "--sprd-phase1", std::to_string(p.sprdPhase1Ms)};
    if (!p.pass) {
        if (p.failingStep >= 0)
            a.insert(a.end(), {"--fail-step", std::to_string(p.failingStep)});
        else
            a.push_back("--fail");
    }
    if (!p.switchPort) a.push_back("--no-switch");
    if (!p.misbehave.empty()) a.insert(a.end(), {"--misbehave", p.misbehave});
    if (p.plug) a.insert(a.end(), {"--phone", std::to_string(p.plug)});
    return a;
}

std::vector<std::string> SimProgramPhones::ProfileArgs(const std::string& device, unsigned long port) const {
    return SimProfileArgs(Profile(device, port));
}

namespace {
class RegistryHold final : public BenchPhones::Hold {
public:
    RegistryHold(SimPhoneRegistry& registry, std::uint64_t plug, std::function<void()> cut)
        : registry_(registry), plug_(plug), link_(registry, plug, std::move(cut)) {}
    bool Lost() const override { return link_.Lost(); }
    void Result(bool failed) override { registry_.JobResult(plug_, failed); }

private:
    SimPhoneRegistry& registry_;
    std::uint64_t plug_;
    SimPhoneRegistry::Link link_;
};
}  // namespace

std::unique_ptr<BenchPhones::Hold> SimProgramPhones::HoldPhone(const std::string& device, unsigned long port,
                                                               std::function<void()> cut) {
    return std::make_unique<RegistryHold>(registry_, Profile(device, port).plug, std::move(cut));
}

}  // namespace quorvel::engine
