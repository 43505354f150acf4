#pragma once
// What every engine-program adapter of a station shares: the station, the [ENGINES]
// settings, the hook that tells the bench a phone re-enumerates, the simulated bench's
// phones, and the making of one job's arguments and log path. Read-only after
// construction; any thread.

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engines/EngineInterfaces.h"
#include "engines/program/ProgramJob.h"
#include "engines/program/ProgramSettings.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::engine {

// The {files} list of a job: one row per file, one text per field.
using FileRows = std::vector<std::vector<std::string>>;

// Below the station folder: the job logs and the records of running programs.
inline constexpr const char* kLogFolder = "TestLog/engine/";
inline constexpr const char* kRunningFolder = "TestLog/engine/running/";
// Old job logs (and file lists) go: those older than the age, then the oldest until the
// rest fit the size. At the station's start and every kCleanEveryJobs jobs.
inline constexpr std::int64_t kLogMaxAgeSeconds = std::int64_t{30} * 86400;
inline constexpr std::uint64_t kLogMaxTotalBytes = 512ull << 20;
inline constexpr unsigned kCleanEveryJobs = 200;
// Returns how many files it removed.
int CleanEngineLogs(const std::string& folder, std::int64_t now, std::int64_t maxAgeSeconds = kLogMaxAgeSeconds,
                    std::uint64_t maxBytes = kLogMaxTotalBytes);

// The simulated bench's phones as engine programs meet them: a phone's profile as the
// simulated engine program's arguments, and a job's hold on its phone. The simulated
// bench provides it; a real bench has none. Any thread.
class BenchPhones {
public:
    virtual ~BenchPhones() = default;
    // A phone is known by its device instance ID (MTK, FP) or, with `device` empty, by
    // its port (SPRD).
    virtual std::vector<std::string> ProfileArgs(const std::string& device, unsigned long port) const = 0;
    // Whether the package's verification passes on this bench.
    virtual bool VerifyPasses() const = 0;

    // Held from a job's start to its end.
    class Hold {
    public:
        virtual ~Hold() = default;
        // The phone was pulled out.
        virtual bool Lost() const = 0;
        // The job reached its result on this phone.
        virtual void Result(bool failed) = 0;
    };
    // `cut` runs, at once when the phone is already gone, when the phone is pulled out;
    // it must only signal.
    virtual std::unique_ptr<Hold> HoldPhone(const std::string& device, unsigned long port,
                                            std::function<void()> cut) = 0;
};

class ProgramContext {
public:
    // `benchPhones`: the simulated bench's phones, whose profiles are passed to the
    // simulated engine program as arguments; null on a real bench.
    // Where the phone of a port sits: its serial node, device instance ID and location
    // (each empty when unknown).
    struct PortPlace {
        std::string node, device, location;
    };
    using PortDevices = std::function<PortPlace(unsigned long port)>;

    // Ends what an earlier, killed station left running and cleans old logs.
    // `profileArgs`: platforms whose jobs get the bench phone's profile as arguments (the
    // simulated engine program's), e.g. "MTK FP SPRD".
    ProgramContext(app::Station& station, ProgramSettings settings,
                   std::function<void(const SwitchEvent&)> switchHook = nullptr, BenchPhones* benchPhones = nullptr,
                   PortDevices portDevices = nullptr, std::string profileArgs = "MTK FP SPRD");

    app::Station& station;
    const ProgramSettings settings;

    void NotifySwitch(const SwitchEvent& event) const {
        if (switchHook_) switchHook_(event);
    }

    // The job for `commandLine` with its placeholders filled. `values` gets {platform},
    // {slot} (empty for -1, SPRD), {log} and, when `files` is given, {files}: the rows are
    // written beside the log, fields joined by tabs. False with `error`, so the job fails
    // before its program starts, when the command line cannot be split, a field holds a
    // control character (a tab or line break would add fields or rows), or the list cannot
    // be written whole.
    bool MakeJob(const std::string& commandLine, const char* platform, int slot,
                 std::map<std::string, std::string> values, const std::vector<std::string>& options,
                 const FileRows* files, JobRequest& request, std::string& error);

    // A package-wide operation: the program, `operation` (its flag and arguments), then the
    // command line's own arguments with {package} and `options`, the phone's placeholders
    // empty. Every line is handed on, on the caller's thread.
    bool MakeOperation(const std::string& commandLine, const char* platform, const std::vector<std::string>& operation,
                       const std::string& package, const std::vector<std::string>& options, JobRequest& request,
                       std::string& error);

    // The first phase's placeholders of a phone handed over whole (MTK and FP engines).
    std::map<std::string, std::string> PhoneValues(const app::DeviceInfo& device, const std::string& package) const;

    engine::BenchPhones* Phones() const { return benchPhones_; }
    // SPRD engines know their phone by its port only; a program needs the phone itself.
    PortPlace DeviceOfPort(unsigned long port) const { return portDevices_ ? portDevices_(port) : PortPlace{}; }

private:
    std::string LogPath(const char* platform, const std::string& unit);

    std::function<void(const SwitchEvent&)> switchHook_;
    engine::BenchPhones* benchPhones_;
    PortDevices portDevices_;
    std::string profileArgs_;
    std::atomic<unsigned> jobs_{0};
};

// A job's phone on the simulated bench, from the job's start to its end: pulling the
// phone cancels the job, as the in-process simulated engines stop, and the job's result
// is counted for the phone. Inert on a real bench, whose programs see a pulled phone
// themselves. Lives on the job's thread.
class BenchPhone {
public:
    // MTK and FP phones by their device instance ID, SPRD phones by their port.
    BenchPhone(const ProgramContext& context, const std::string& device, unsigned long port, ProgramJob& job);
    bool Lost() const { return hold_ && hold_->Lost(); }
    void Result(bool failed) const {
        if (hold_) hold_->Result(failed);
    }

private:
    std::unique_ptr<BenchPhones::Hold> hold_;
};

}  // namespace quorvel::engine
