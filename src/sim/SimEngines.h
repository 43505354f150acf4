#pragma once
// Simulated engines for a bench without the vendor libraries. They run a job as a
// real engine is seen from the station: status texts, progress, the switch of the
// phone to its next port, a pass or a fail, all timed through the station clock.
// A phone's behaviour comes from the SimPhoneRegistry (filled by the simulated
// bench), looked up per job, so one engine object serves many phones in turn.
// Threads: like the real engines (see EngineInterfaces.h); CancelTask and
// StopOnePortWork from another thread end a running job promptly.

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "engines/EngineInterfaces.h"
#include "history/JobRecord.h"
#include "platform/Clock.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::engine {

struct PhoneProfile {
    platform::Millis durationMs = 6000;  // the job's fixed steps, without the transfer
    bool pass = true;
    int failingStep = -1;                   // the step a failing job stops at; -1: after the last
    std::uint64_t sizeBytes = 32ull << 20;  // image bytes transferred
    double speedMBps = 16.0;                // transfer speed; 0: no transfer time
    bool switchPort = true;                 // MTK: report the DA switch; SPRD: phase 1 re-enumerates
    platform::Millis sprdPhase1Ms = 3000;   // SPRD: time until phase 1 ends
    std::uint64_t plug = 0;                 // the physical connection it came on; 0: never unplugged
    // SPRD phones at the protocol level ([BENCH] NativeSprd=1):
    bool sprdStays = false;   // stays connected from boot ROM to reset instead of re-enumerating
    std::string sprdFault{};  // the simulated phone's --fault, e.g. "signature@system"
    // Engine programs ([BENCH] EngineProgram=1): how the phone's engine program misbehaves.
    std::string misbehave{};  // quorvel-sim-engine's --misbehave, e.g. "crash"; empty: it behaves
};

class CancellableWait;

// Why the simulated engines refuse the package file at `path` (its pre-load fails and its
// jobs fail at once), as a real engine that parses it would; empty when it can be flashed.
// A file that is missing, not a regular file, or lists no entry (only blank and "#"
// lines) is refused.
std::string SimPackageProblem(const std::string& path);

// The identity a simulated phone reports: chip by platform (MTK, FP, SPRD), serial number
// and IMEI (with its check digit) from `phone`, the bench's number for that phone, so
// tests and every run of a scenario can predict it.
app::PhoneIdentity SimPhoneIdentity(const std::string& platform, std::uint64_t phone);

// Any thread may call any method.
class SimPhoneRegistry {
public:
    void SetDefault(const PhoneProfile& profile);
    // MTK and CFG phones, by the instanceId of their DeviceInfo.
    void SetProfile(const std::string& instanceId, const PhoneProfile& profile);
    // SPRD phones, known to their engine only by the COM port number.
    void SetPortProfile(unsigned long comPort, const PhoneProfile& profile);
    PhoneProfile ForDevice(const std::string& instanceId) const;
    PhoneProfile ForPort(unsigned long comPort) const;

    // Called on the engine's thread, without any engine lock held.
    void SetSwitchHook(std::function<void(const SwitchEvent&)> hook);
    void NotifySwitch(const SwitchEvent& event) const;

    // Whether package verification passes.
    void SetVerifyPasses(bool passes);
    bool VerifyPasses() const;

    // The phone of `plug` was pulled out: every job running on it ends at once, failed.
    void Unplugged(std::uint64_t plug);
    // Whether a job is running on the phone of `plug`.
    bool InUse(std::uint64_t plug) const;

    // A job on the phone of `plug` reached its result (SPRD: the last phase's).
    void JobResult(std::uint64_t plug, bool failed);
    struct Tally {
        std::uint64_t phones = 0;   // phones that had a result
        std::uint64_t results = 0;  // results in all
        std::uint64_t failed = 0;
        std::uint64_t mostForOnePhone = 0;
    };
    Tally Results() const;

    // A job's hold on its phone, from start to end; a job that starts on a phone already
    // gone is cut at once. `cut` runs with the registry locked: it must only signal.
    class Link {
    public:
        Link(SimPhoneRegistry& registry, std::uint64_t plug, CancellableWait& wait);
        Link(SimPhoneRegistry& registry, std::uint64_t plug, std::function<void()> cut);
        ~Link();
        Link(const Link&) = delete;
        Link& operator=(const Link&) = delete;
        bool Lost() const;

    private:
        friend class SimPhoneRegistry;
        SimPhoneRegistry& registry_;
        std::uint64_t plug_;
        std::function<void()> cut_;
    };

private:
    mutable std::mutex mutex_;
    std::multimap<std::uint64_t, Link*> links_;
    std::set<std::uint64_t> gone_;
    std::map<std::uint64_t, std::uint64_t> results_;  // by plug
    std::uint64_t failed_ = 0;
    PhoneProfile default_;
    std::map<std::string, PhoneProfile> byDevice_;
    std::map<unsigned long, PhoneProfile> byPort_;
    std::function<void(const SwitchEvent&)> hook_;
    bool verifyPasses_ = true;
};

// Sleeps through the clock unless cancelled; shared by the three simulated engines.
class CancellableWait {
public:
    explicit CancellableWait(platform::Clock& clock) : clock_(clock) {}
    // False when cancelled before `ms` passed.
    bool Pause(platform::Millis ms);
    void Cancel();
    void Reset();
    bool Cancelled() const;

private:
    platform::Clock& clock_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool cancelled_ = false;
};

class SimMtkEngine final : public MtkEngine {
public:
    SimMtkEngine(app::Station& station, SimPhoneRegistry& registry, app::MessageWindow& window);

    void SetDLPara(int threadIndex, int, int, int, int, int, int, int, const char*, const char*, const char*, int, int,
                   int) override;
    void SetMemoryTestPara(int, int, int, int, int) override {}
    void SetEfusePara(int, const char*, int, const char*, const char*, const char*) override {}
    void SetDAPort(int) override {}
    void SetDownloadType(int) override {}
    void SetDeviceInfo(app::DeviceInfo* device) override;
    int DLOperationStart() override;
    void CancelTask() override { wait_.Cancel(); }
    int GetPCLoadVersion(char* buffer260) override;
    void GetVersionInfo(app::VersionInfo* info) override;
    int PreLoadFiles(char* scatterPath, bool, int, int, app::SpmtkEfuseInfo, bool) override;
    int VerifyHostBufferBeforeStart(const char* checksumIni) override;
    void SetChkSumWnd(app::MessageWindow* window) override { checksumWindow_ = window; }

private:
    app::Station& station_;
    SimPhoneRegistry& registry_;
    app::MessageWindow& window_;
    CancellableWait wait_;
    int slot_ = 0;
    app::DeviceInfo device_{};
    app::MessageWindow* checksumWindow_ = nullptr;
};

class SimFpEngine final : public FpEngine {
public:
    SimFpEngine(app::Station& station, SimPhoneRegistry& registry, app::MessageWindow& window);

    int PreLoadFiles_FP(const char* cfgPath) override;
    void SetDownloadType_FP(int) override {}
    void SetDeviceInfo(app::DeviceInfo* device) override;
    void SetDLPara(int threadIndex) override;
    int MTKFP_OperationStart() override;
    void CancelTask() override { wait_.Cancel(); }

private:
    app::Station& station_;
    SimPhoneRegistry& registry_;
    app::MessageWindow& window_;
    CancellableWait wait_;
    int slot_ = 0;
    app::DeviceInfo device_{};
};

class SimSprdEngine final : public SprdEngine {
public:
    SimSprdEngine(app::Station& station, SimPhoneRegistry& registry, app::MessageWindow& window);
    ~SimSprdEngine() override;

    void SetSPRDParameters(int, unsigned long port, std::string, std::vector<app::DlFileInfo> files,
                           std::string) override;
    int StartWork() override;
    int StartOnePortWork(unsigned long port, int) override;
    int StopOnePortWork(unsigned long port, int) override;
    std::string GetStepName(int step) override;

private:
    void RunPort(unsigned long port, bool phase1, const PhoneProfile& profile, std::uint64_t bytes);
    void Join();

    app::Station& station_;
    SimPhoneRegistry& registry_;
    app::MessageWindow& window_;
    CancellableWait wait_;
    std::mutex mutex_;  // guards the fields below
    bool firstPhase_ = false;
    std::uint64_t packageBytes_ = 0;
    std::vector<int> steps_;  // step numbers of the running port, for GetStepName
    std::thread thread_;
};

// Makes simulated engines that report to the given window.
class SimEngineFactory final : public EngineFactory {
public:
    SimEngineFactory(app::Station& station, SimPhoneRegistry& registry) : station_(station), registry_(registry) {}
    std::unique_ptr<MtkEngine> MakeMtk(app::MessageWindow& window) override;
    std::unique_ptr<FpEngine> MakeFp(app::MessageWindow& window) override;
    std::unique_ptr<SprdEngine> MakeSprd(app::MessageWindow& window) override;

private:
    app::Station& station_;
    SimPhoneRegistry& registry_;
};

}  // namespace quorvel::engine
