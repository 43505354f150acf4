#pragma once
// The simulated bench's SPRD phones at the protocol level: one quorvel-sprd-phone per
// plugged phone, listening on a Unix socket named by the phone's port, which the engine
// program reaches through its {port} (NativeSprdCommandLine). Started when the phone is
// plugged, ended (SIGTERM, so it writes its report) when it is pulled or the bench goes.
// Reports go to `reportDir` as com<N>_plug<P>.json.
// Threads: the bench calls Start and End under its own lock; any thread.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/ChildProcess.h"
#include "sim/SimEngines.h"

namespace quorvel::sim {

// The phone's arguments for a bench profile: re-enumerating after its second loader
// unless it stays connected, and its fault.
std::vector<std::string> SprdPhoneArgs(const engine::PhoneProfile& profile);

class SprdPhonePrograms {
public:
    // A phone that does not listen within this long fails its plug (real time: it is a process).
    static constexpr int kReadyMs = 5000;

    SprdPhonePrograms(std::string program, std::string runDir, std::string reportDir);
    ~SprdPhonePrograms();  // ends every phone
    SprdPhonePrograms(const SprdPhonePrograms&) = delete;
    SprdPhonePrograms& operator=(const SprdPhonePrograms&) = delete;

    // Starts the phone of COM<com> and waits until it listens; false with `error`.
    bool Start(int com, std::uint64_t plug, const engine::PhoneProfile& profile, std::string& error);
    // Ends it; it writes its report on the way out.
    void End(int com);
    std::string ReportPath(int com, std::uint64_t plug) const;

private:
    struct Running {
        std::unique_ptr<platform::ChildProcess> child;
    };
    const std::string program_, runDir_, reportDir_;
    std::mutex mutex_;
    std::map<int, Running> running_;  // by COM number
};

}  // namespace quorvel::sim
