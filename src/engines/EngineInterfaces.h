#pragma once
// The three vendor engine classes as the station sees them: exactly the operations
// it calls. A real engine and the simulated one are implementations of these.
// Each engine object reports progress to the window it was created with.
// Threads: a worker calls its own engine objects from its thread; CancelTask comes
// from the manager's stop thread, GetStepName from the station thread, and the
// package-wide operations run on worker 0's objects while no job runs.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "engines/EngineRecords.h"
#include "engines/PackageKind.h"

// The window an engine reports to: its messages are the station's own typed values,
// declared where the station keeps them.
namespace quorvel::app {
class MessageWindow;
}

namespace quorvel::engine {

class MtkEngine {  // CMTKComDload
public:
    virtual ~MtkEngine() = default;
    virtual void SetDLPara(int threadIndex, int checkVersion, int bromLog, int flashCheckSum, int forceWatchdogReset,
                           int enableAutoPulling, int battery, int arg8, const char* arg9, const char* nvramFile,
                           const char* proinfoFile, int upgradeBkNv, int cleanBinRegionData, int nvDataZip) = 0;
    virtual void SetMemoryTestPara(int dataBus, int addrBus, int patternTest, int incDecTest, int patternNum) = 0;
    virtual void SetEfusePara(int enabled, const char* xmlPath, int arg3, const char* arg4, const char* daBr,
                              const char* daPl) = 0;
    virtual void SetDAPort(int threadIndex) = 0;
    virtual void SetDownloadType(int type) = 0;
    virtual void SetDeviceInfo(app::DeviceInfo* device) = 0;
    virtual int DLOperationStart() = 0;  // 0 = passed
    virtual void CancelTask() = 0;
    virtual int GetPCLoadVersion(char* buffer260) = 0;
    virtual void GetVersionInfo(app::VersionInfo* info) = 0;
    virtual int PreLoadFiles(char* scatterPath, bool arg2, int flashCheckSum, int downloadType,
                             app::SpmtkEfuseInfo efuse, bool reserveUserData) = 0;  // 0 = success
    virtual int VerifyHostBufferBeforeStart(const char* checksumIni) = 0;           // non-zero = passed
    virtual void SetChkSumWnd(app::MessageWindow* window) = 0;
};

class FpEngine {  // CMTK_FPComDload
public:
    virtual ~FpEngine() = default;
    virtual int PreLoadFiles_FP(const char* cfgPath) = 0;
    virtual void SetDownloadType_FP(int type) = 0;
    virtual void SetDeviceInfo(app::DeviceInfo* device) = 0;
    virtual void SetDLPara(int threadIndex) = 0;
    virtual int MTKFP_OperationStart() = 0;  // 0 = passed
    virtual void CancelTask() = 0;
};

class SprdEngine {  // CSPRDComDload
public:
    virtual ~SprdEngine() = default;
    virtual void SetSPRDParameters(int selectedFileCount, unsigned long port, std::string productName,
                                   std::vector<app::DlFileInfo> files, std::string configFilePath) = 0;
    virtual int StartWork() = 0;
    virtual int StartOnePortWork(unsigned long port, int arg) = 0;
    virtual int StopOnePortWork(unsigned long port, int arg) = 0;
    virtual std::string GetStepName(int step) = 0;
};

// Makes one object of each engine class for a worker, reporting to `window`.
class EngineFactory {
public:
    virtual ~EngineFactory() = default;
    virtual std::unique_ptr<MtkEngine> MakeMtk(app::MessageWindow& window) = 0;
    virtual std::unique_ptr<FpEngine> MakeFp(app::MessageWindow& window) = 0;
    virtual std::unique_ptr<SprdEngine> MakeSprd(app::MessageWindow& window) = 0;
    // Why jobs of `packageKind` cannot run on these engines (an operator's message), or
    // empty. Asked at Start, on the station thread.
    virtual std::string StartProblem(app::PackageKind /*kind*/) { return {}; }
};

// The port number of a friendly name's last parenthesised part ("... (COM23)"), 1..256,
// or -1: the worker and the engines know a phone's port by it.
inline int ExtractComNumber(const std::string& name) {
    const auto open = name.rfind('(');
    const auto close = name.rfind(')');
    std::string inner;
    if (open != std::string::npos && close != std::string::npos && close > open)
        inner = name.substr(open + 1, close - open - 1);
    if (inner.size() < 3) return -1;
    const std::string rest = inner.substr(3);
    if (rest.size() > 3) return -1;
    const int n = std::atoi(rest.c_str());
    return n >= 1 && n <= 256 ? n : -1;
}

// A progress count or total the engine does not know (yet).
inline constexpr std::uint32_t kUnknown = 0xFFFFFFFFu;

// A phone moves to its next port (the engine switched it): the bench re-enumerates it.
struct SwitchEvent {
    enum Kind { MTK_TO_DA, SPRD_TO_DOWNLOAD_PORT } kind;
    std::string instanceId;  // MTK: the device the engine was given
    unsigned long comPort;   // SPRD: the port the engine served
    int slot;                // MTK: the engine's ThreadIndex; SPRD: -1
};

}  // namespace quorvel::engine
