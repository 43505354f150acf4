#pragma once
// The MTK scatter-package engine as an engine program: one program run per job,
// its protocol lines turned into the 6028 messages the in-process engine sends.
// Pre-load and verification run the program's --preload and --verify; a program
// without them leaves them to the in-process engine given as `packageEngine`, as the
// package's load version. The version query also asks the programs.
// Threads: as MtkEngine (EngineInterfaces.h); CancelTask from the stop thread ends
// the running program.

#include <functional>
#include <memory>

#include "engines/EngineInterfaces.h"
#include "engines/program/ProgramContext.h"

namespace quorvel::engine {

// One MTK-style job (MTK and CFG packages) on the phone `instanceId`: runs `request`,
// reports to row `slot` and returns 0 passed, 1 failed (also when its bench phone was
// pulled), 2 cancelled, 3 a fault of the program.
int RunMtkStyleProgram(ProgramContext& context, ProgramJob& job, app::MessageWindow& window, int slot,
                       const JobRequest& request, const std::string& makeError, bool daSwitch,
                       const std::string& instanceId);

// A package-wide operation of the program (ProgramContext::MakeOperation): 1 passed,
// 0 failed, -1 the program does not offer it (it exited without a result) or cannot run
// (Start reports that), so the caller does what it does without a program. A failure is
// said with the program's own reason in the notice pane and the log, so that the
// operator's message box about the package is not all there is to go on.
int RunPackageOperation(ProgramContext& context, ProgramJob& job, const std::string& commandLine, const char* platform,
                        const std::vector<std::string>& operation, const std::string& package,
                        const std::vector<std::string>& options,
                        const std::function<void(const protocol::Event&)>& onEvent);

class ProgramMtkEngine final : public MtkEngine {
public:
    ProgramMtkEngine(ProgramContext& context, app::MessageWindow& window, std::unique_ptr<MtkEngine> packageEngine);

    void SetDLPara(int threadIndex, int checkVersion, int bromLog, int flashCheckSum, int forceWatchdogReset,
                   int enableAutoPulling, int battery, int arg8, const char* arg9, const char* nvramFile,
                   const char* proinfoFile, int upgradeBkNv, int cleanBinRegionData, int nvDataZip) override;
    void SetMemoryTestPara(int dataBus, int addrBus, int patternTest, int incDecTest, int patternNum) override;
    void SetEfusePara(int enabled, const char* xmlPath, int, const char*, const char* daBr, const char* daPl) override;
    void SetDAPort(int threadIndex) override;
    void SetDownloadType(int type) override;
    void SetDeviceInfo(app::DeviceInfo* device) override;
    int DLOperationStart() override;
    void CancelTask() override { job_.Cancel(); }

    int GetPCLoadVersion(char* buffer260) override { return package_->GetPCLoadVersion(buffer260); }
    // The in-process engine's versions, with the MTK and FP programs' own (their --version
    // hello) in the two module entries.
    void GetVersionInfo(app::VersionInfo* info) override;
    int PreLoadFiles(char* scatterPath, bool a2, int checksum, int type, app::SpmtkEfuseInfo efuse,
                     bool reserve) override;
    int VerifyHostBufferBeforeStart(const char* ini) override;
    void SetChkSumWnd(app::MessageWindow* window) override {
        checksumWindow_ = window;
        package_->SetChkSumWnd(window);
    }

private:
    ProgramContext& context_;
    app::MessageWindow& window_;
    std::unique_ptr<MtkEngine> package_;
    ProgramJob job_;
    int slot_ = 0;
    int daPort_ = -1;
    int efuse_ = 0;
    app::DeviceInfo device_{};
    std::vector<std::string> options_;  // DL parameters, memory test, efuse, download type
    std::vector<std::string> efuseOptions_;
    std::vector<std::string> memoryOptions_;
    int downloadType_ = 0;
    app::MessageWindow* checksumWindow_ = nullptr;
};

}  // namespace quorvel::engine
