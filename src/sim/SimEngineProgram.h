#pragma once
// The simulated bench on the engine program: where quorvel-sim-engine is, its command
// line per platform, and a simulated phone's profile as its arguments. Any thread.

#include <string>
#include <vector>

#include "engines/program/ProgramContext.h"
#include "sim/SimEngines.h"

namespace quorvel::engine {

inline constexpr const char* kSprdFlashProgram = "quorvel-sprd-flash";
inline constexpr const char* kSprdPhoneProgram = "quorvel-sprd-phone";

// The first executable `name` beside the station, beside this program or in the build
// tree (tools/<name>/<name>); `name` (found in PATH) when there is none.
std::string FindBenchProgram(const std::string& stationDir, const std::string& name);
inline std::string FindSimEngineProgram(const std::string& stationDir) {
    return FindBenchProgram(stationDir, "quorvel-sim-engine");
}

// The folder of this process's simulated SPRD phones' sockets: short, as socket paths must be.
std::string NativeSprdRunDir();
// quorvel-sprd-flash against the simulated phone of the job's port, <runDir>/com<port>.sock.
std::string NativeSprdCommandLine(const std::string& program, const std::string& runDir);
// A command line of the native engine that reaches its phone over USB (no --transport).
bool IsNativeSprdOverUsb(const std::string& commandLine);

// Command line of quorvel-sim-engine for `platform` (MTK, FP, SPRD), its time running
// `timeScale` times faster, as the station clock does.
std::string SimEngineCommandLine(const std::string& program, const char* platform, double timeScale);

std::vector<std::string> SimProfileArgs(const PhoneProfile& profile);

// The registry's phones as the engine programs meet them.
class SimProgramPhones final : public BenchPhones {
public:
    explicit SimProgramPhones(SimPhoneRegistry& registry) : registry_(registry) {}
    std::vector<std::string> ProfileArgs(const std::string& device, unsigned long port) const override;
    bool VerifyPasses() const override { return registry_.VerifyPasses(); }
    std::unique_ptr<Hold> HoldPhone(const std::string& device, unsigned long port, std::function<void()> cut) override;

private:
    PhoneProfile Profile(const std::string& device, unsigned long port) const {
        return device.empty() ? registry_.ForPort(port) : registry_.ForDevice(device);
    }
    SimPhoneRegistry& registry_;
};

}  // namespace quorvel::engine
