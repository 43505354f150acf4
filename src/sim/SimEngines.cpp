#include "sim/SimEngines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "engines/SlotOutcome.h"
#include "platform/UniqueFd.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::engine {

namespace fs = std::filesystem;
using platform::Millis;

// ---- registry ----

void SimPhoneRegistry::SetDefault(const PhoneProfile& profile) {
    std::lock_guard g(mutex_);
    default_ = profile;
}

void SimPhoneRegistry::SetProfile(const std::string& instanceId, const PhoneProfile& profile) {
    std::lock_guard g(mutex_);
    byDevice_[instanceId] = profile;
}

void SimPhoneRegistry::SetPortProfile(unsigned long comPort, const PhoneProfile& profile) {
    std::lock_guard g(mutex_);
    byPort_[comPort] = profile;
}

PhoneProfile SimPhoneRegistry::ForDevice(const std::string& instanceId) const {
    std::lock_guard g(mutex_);
    auto it = byDevice_.find(instanceId);
    return it == byDevice_.end() ? default_ : it->second;
}

PhoneProfile SimPhoneRegistry::ForPort(unsigned long comPort) const {
    std::lock_guard g(mutex_);
    auto it = byPort_.find(comPort);
    return it == byPort_.end() ? default_ : it->second;
}

void SimPhoneRegistry::SetSwitchHook(std::function<void(const SwitchEvent&)> hook) {
    std::lock_guard g(mutex_);
    hook_ = std::move(hook);
}

void SimPhoneRegistry::NotifySwitch(const SwitchEvent& event) const {
    std::function<void(const SwitchEvent&)> hook;
    {
        std::lock_guard g(mutex_);
        hook = hook_;
    }
    if (hook) hook(event);
}

void SimPhoneRegistry::SetVerifyPasses(bool passes) {
    std::lock_guard g(mutex_);
    verifyPasses_ = passes;
}

bool SimPhoneRegistry::VerifyPasses() const {
    std::lock_guard g(mutex_);
    return verifyPasses_;
}

void SimPhoneRegistry::Unplugged(std::uint64_t plug) {
    if (plug == 0) return;
    std::lock_guard g(mutex_);
    gone_.insert(plug);
    for (auto [it, end] = links_.equal_range(plug); it != end; ++it) it->second->cut_();
}

bool SimPhoneRegistry::InUse(std::uint64_t plug) const {
    std::lock_guard g(mutex_);
    return links_.count(plug) > 0;
}

void SimPhoneRegistry::JobResult(std::uint64_t plug, bool failed) {
    if (plug == 0) return;
    std::lock_guard g(mutex_);
    ++results_[plug];
    failed_ += failed ? 1 : 0;
}

SimPhoneRegistry::Tally SimPhoneRegistry::Results() const {
    std::lock_guard g(mutex_);
    Tally t;
    t.failed = failed_;
    for (const auto& [plug, n] : results_) {
        ++t.phones;
        t.results += n;
        t.mostForOnePhone = std::max(t.mostForOnePhone, n);
    }
    return t;
}

SimPhoneRegistry::Link::Link(SimPhoneRegistry& registry, std::uint64_t plug, CancellableWait& wait)
    : Link(registry, plug, [&wait] { wait.Cancel(); }) {}

SimPhoneRegistry::Link::Link(SimPhoneRegistry& registry, std::uint64_t plug, std::function<void()> cut)
    : registry_(registry), plug_(plug), cut_(std::move(cut)) {
    if (plug_ == 0) return;
    std::lock_guard g(registry_.mutex_);
    registry_.links_.emplace(plug_, this);
    if (registry_.gone_.count(plug_)) cut_();
}

SimPhoneRegistry::Link::~Link() {
    if (plug_ == 0) return;
    std::lock_guard g(registry_.mutex_);
    for (auto [it, end] = registry_.links_.equal_range(plug_); it != end; ++it) {
        if (it->second == this) {
            registry_.links_.erase(it);
            break;
        }
    }
}

bool SimPhoneRegistry::Link::Lost() const {
    if (plug_ == 0) return false;
    std::lock_guard g(registry_.mutex_);
    return registry_.gone_.count(plug_) > 0;
}

// ---- waiting ----

bool CancellableWait::Pause(Millis ms) {
    std::unique_lock lk(mutex_);
    if (ms <= 0) return !cancelled_;
    const Millis deadline = clock_.Now() + ms;
    clock_.WaitUntil(lk, cv_, deadline, [&] { return cancelled_; });
    return !cancelled_;
}

void CancellableWait::Cancel() {
    {
        std::lock_guard g(mutex_);
        cancelled_ = true;
    }
    cv_.notify_all();
}

void CancellableWait::Reset() {
    std::lock_guard g(mutex_);
    cancelled_ = false;
}

bool CancellableWait::Cancelled() const {
    std::lock_guard g(mutex_);
    return cancelled_;
}

// ---- MTK and CFG jobs ----

std::string SimPackageProblem(const std::string& path) {
    // Opened without blocking and read only when it is a regular file: a FIFO or a
    // device named like a package must not hang the engine.
    const platform::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd) return "cannot open " + path;
    struct stat st {};
    std::string problem;
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) problem = path + " is not a regular file";
    // An entry is any line that is not blank and not a "#" comment; the first 64 KiB tell.
    bool entry = false, lineStart = true, comment = false;
    char buf[4096];
    for (std::size_t seen = 0; problem.empty() && !entry && seen < 65536;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n <= 0) break;
        seen += static_cast<std::size_t>(n);
        for (ssize_t i = 0; i < n && !entry; ++i) {
            const char c = buf[i];
            if (c == '\n' || c == '\r') {
                lineStart = true;
                comment = false;
            } else if (c != ' ' && c != '\t' && !comment) {
                if (lineStart && c == '#')
                    comment = true;
                else
                    entry = true;
                lineStart = false;
            }
        }
    }
    if (problem.empty() && !entry) problem = path + " lists nothing to download";
    return problem;
}

app::PhoneIdentity SimPhoneIdentity(const std::string& platform, std::uint64_t phone) {
    app::PhoneIdentity d;
    d.chip = platform == "SPRD" ? "SC9863A" : platform == "FP" ? "MT6261" : "MT6765";
    char digits[32];
    std::snprintf(digits, sizeof digits, "%010llu", static_cast<unsigned long long>(phone % 10000000000ull));
    d.serial = std::string("SIM") + digits;
    std::snprintf(digits, sizeof digits, "35%012llu", static_cast<unsigned long long>(phone % 1000000000000ull));
    int sum = 0;  // Luhn over the 14 digits, every second one doubled
    for (int i = 0; i < 14; ++i) {
        int v = digits[i] - '0';
        if (i % 2 == 1) v = v * 2 > 9 ? v * 2 - 9 : v * 2;
        sum += v;
    }
    d.imei = std::string(digits) + static_cast<char>('0' + (10 - sum % 10) % 10);
    return d;
}

namespace {

Millis TransferMs(const PhoneProfile& p, std::uint64_t bytes) {
    if (p.speedMBps <= 0) return 0;
    return static_cast<Millis>(static_cast<double>(bytes) / (1024.0 * 1024.0) / p.speedMBps * 1000.0);
}

// The simulated MTK-style steps, in the words of the job's outcome.
constexpr const char* kStepConnect = "Connecting";
constexpr const char* kStepDaSwitch = "DA switch";
constexpr const char* kStepDownload = "Downloading";

// One MTK-style job as the engines report it by message 6028. Steps: 0 bind,
// 1 DA switch (MTK only), 2 transfer. `package`: why the package cannot be flashed, or
// empty. Returns 0 passed, 1 failed, 2 cancelled.
int RunMtkStyleJob(app::Station& station, app::MessageWindow& window, CancellableWait& wait, SimPhoneRegistry& registry,
                   int slot, const app::DeviceInfo& device, bool daSwitch, const std::string& package) {
    const PhoneProfile p = registry.ForDevice(device.instanceId);
    const SimPhoneRegistry::Link link(registry, p.plug, wait);
    auto status = [&](const std::string& text) { window.Send(app::SlotStatus{slot, text}); };
    auto bar = [&](app::BarValue what, std::uint32_t v) { window.Send(app::SlotBar{slot, what, v}); };
    auto verdict = [&](bool passed) { window.Send(app::SlotVerdict{slot, passed}); };
    auto choose = [&](const app::LangText& t) { return station.language.ChooseText(t); };
    const char* step = kStepConnect;
    // The engine's account goes first, then the failure as the row shows it, then the verdict.
    auto fail = [&](bool interrupted, const std::string& reason) {
        const bool cancelled = interrupted && !link.Lost();  // a pulled phone fails the job
        window.Send(app::SlotAccount{slot, step,
                                     cancelled     ? app::texts::kReasonCancelled
                                     : interrupted ? app::texts::kReasonUnplugged
                                                   : reason});
        status(choose(cancelled ? app::texts::kSimCancelled : app::texts::kSimFailed));
        verdict(false);
        return cancelled ? 2 : 1;
    };
    auto failsAt = [&](int at) { return !p.pass && p.failingStep == at; };

    // A new job starts from nothing: no count, no total, no percent left from the last.
    bar(app::BarValue::DONE, 0);
    bar(app::BarValue::TOTAL, kUnknown);
    bar(app::BarValue::PERCENT, 0);
    if (!package.empty()) return fail(false, package);

    const Millis setupMs = p.durationMs / 10;
    status(choose(app::texts::kStatusBindIndex));
    if (!wait.Pause(setupMs)) return fail(true, "");
    if (failsAt(0)) return fail(false, "no answer from the phone's boot ROM");
    window.Send(app::SlotIdentity{
        slot, SimPhoneIdentity(daSwitch ? "MTK" : "FP", p.plug ? p.plug : static_cast<std::uint64_t>(slot) + 1)});

    if (daSwitch && p.switchPort) {
        step = kStepDaSwitch;
        if (!wait.Pause(setupMs)) return fail(true, "");
        window.Send(app::SlotDaSwitched{slot});
        status(choose(app::texts::kStatusSwitchDa));
        registry.NotifySwitch({SwitchEvent::MTK_TO_DA, device.instanceId, 0, slot});
        if (failsAt(1)) return fail(false, "the download agent did not answer on its port");
    }

    step = kStepDownload;
    const std::uint32_t total = static_cast<std::uint32_t>(std::min<std::uint64_t>(p.sizeBytes, 0xFFFFFFFEu));
    const Millis chunkMs = (p.durationMs - 2 * setupMs + TransferMs(p, p.sizeBytes)) / 10;
    status(choose(app::texts::kSimDownloading));
    bar(app::BarValue::TOTAL, total);
    for (std::uint32_t i = 1; i <= 10; ++i) {
        if (!wait.Pause(chunkMs)) return fail(true, "");
        bar(app::BarValue::DONE, static_cast<std::uint32_t>(static_cast<std::uint64_t>(total) * i / 10));
        bar(app::BarValue::PERCENT, i * 10);
        if (failsAt(2) && i == 5) return fail(false, "write error at 50 %");
    }
    if (!p.pass) return fail(false, "image check failed after writing");
    status(choose(app::texts::kStatusDownloadComplete));
    bar(app::BarValue::PERCENT, 100);
    verdict(true);
    return 0;
}

}  // namespace

SimMtkEngine::SimMtkEngine(app::Station& station, SimPhoneRegistry& registry, app::MessageWindow& window)
    : station_(station), registry_(registry), window_(window), wait_(station.clock) {}

void SimMtkEngine::SetDLPara(int threadIndex, int, int, int, int, int, int, int, const char*, const char*, const char*,
                             int, int, int) {
    slot_ = threadIndex;
    wait_.Reset();
}

void SimMtkEngine::SetDeviceInfo(app::DeviceInfo* device) {
    if (device) device_ = *device;
}

int SimMtkEngine::DLOperationStart() {
    const int r = RunMtkStyleJob(station_, window_, wait_, registry_, slot_, device_, true,
                                 SimPackageProblem(station_.package.scatterFilePath));
    registry_.JobResult(registry_.ForDevice(device_.instanceId).plug, r != 0);
    return r;
}

int SimMtkEngine::GetPCLoadVersion(char* buffer260) {
    std::snprintf(buffer260, 260, "%s", "CY_SIM_1.0");
    return 0;
}

void SimMtkEngine::GetVersionInfo(app::VersionInfo* info) {
    if (!info) return;
    app::CopyField(info->daVersion, "SIM-DA 1.0");
    app::CopyField(info->daBuild, "simulated");
    app::CopyField(info->module1Version, "SIM-MTK 1.0");
    app::CopyField(info->module1Build, "simulated");
    app::CopyField(info->module2Version, "SIM-FP 1.0");
    app::CopyField(info->module2Build, "simulated");
}

int SimMtkEngine::PreLoadFiles(char* scatterPath, bool, int, int, app::SpmtkEfuseInfo, bool) {
    return scatterPath && SimPackageProblem(scatterPath).empty() ? 0 : 1;
}

// Reports every file beside the checksum list as validated, then the verdict.
int SimMtkEngine::VerifyHostBufferBeforeStart(const char* checksumIni) {
    wait_.Reset();
    std::vector<fs::path> files;
    std::error_code ec;
    const fs::path folder = fs::path(checksumIni ? checksumIni : "").parent_path();
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec) && it->path().filename() != "CheckSum.ini") files.push_back(it->path());
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        app::ChecksumProgress record;
        record.path = file.string();
        record.bytesTotal = fs::file_size(file, ec);
        for (int percent : {0, 50, 100}) {
            record.percent = static_cast<std::uint8_t>(percent);
            record.bytesDone = record.bytesTotal * static_cast<std::uint64_t>(percent) / 100;
            if (checksumWindow_) checksumWindow_->Send(record);
            if (!wait_.Pause(20)) return 0;
        }
    }
    return registry_.VerifyPasses() ? 1 : 0;
}

SimFpEngine::SimFpEngine(app::Station& station, SimPhoneRegistry& registry, app::MessageWindow& window)
    : station_(station), registry_(registry), window_(window), wait_(station.clock) {}

int SimFpEngine::PreLoadFiles_FP(const char* cfgPath) {
    return cfgPath && SimPackageProblem(cfgPath).empty() ? 0 : 1;
}

void SimFpEngine::SetDeviceInfo(app::DeviceInfo* device) {
    if (device) device_ = *device;
}

void SimFpEngine::SetDLPara(int threadIndex) {
    slot_ = threadIndex;
    wait_.Reset();
}

int SimFpEngine::MTKFP_OperationStart() {
    const int r = RunMtkStyleJob(station_, window_, wait_, registry_, slot_, device_, false,
                                 SimPackageProblem(station_.package.cfgFilePath));
    registry_.JobResult(registry_.ForDevice(device_.instanceId).plug, r != 0);
    return r;
}

// ---- SPRD ----

namespace {
using Step = app::SprdStep;
constexpr Step kPhase1Steps[] = {Step::CHECK_BAUD, Step::CONNECTING, Step::DOWNLOADING};
constexpr Step kPhase2Steps[] = {Step::CHECK_BAUD, Step::CONNECTING, Step::ERASING, Step::DOWNLOADING,
                                 Step::CHANGE_BAUD};
}  // namespace

SimSprdEngine::SimSprdEngine(app::Station& station, SimPhoneRegistry& registry, app::MessageWindow& window)
    : station_(station), registry_(registry), window_(window), wait_(station.clock) {}

SimSprdEngine::~SimSprdEngine() {
    wait_.Cancel();
    Join();
}

void SimSprdEngine::SetSPRDParameters(int, unsigned long, std::string, std::vector<app::DlFileInfo> files,
                                      std::string) {
    std::uint64_t bytes = 0;
    for (const auto& f : files) bytes += f.FileSize;
    std::lock_guard g(mutex_);
    packageBytes_ = bytes;
}

int SimSprdEngine::StartWork() {
    std::lock_guard g(mutex_);
    firstPhase_ = true;
    return 0;
}

int SimSprdEngine::StartOnePortWork(unsigned long port, int) {
    wait_.Cancel();
    Join();
    wait_.Reset();
    const PhoneProfile profile = registry_.ForPort(port);
    std::lock_guard g(mutex_);
    const bool phase1 = firstPhase_;
    firstPhase_ = false;
    const std::uint64_t bytes = packageBytes_ ? packageBytes_ : profile.sizeBytes;
    steps_.clear();
    thread_ = std::thread([this, port, phase1, profile, bytes] { RunPort(port, phase1, profile, bytes); });
    return 0;
}

int SimSprdEngine::StopOnePortWork(unsigned long, int) {
    wait_.Cancel();
    Join();
    return 0;
}

void SimSprdEngine::Join() {
    std::thread t;
    {
        std::lock_guard g(mutex_);
        t = std::move(thread_);
    }
    if (t.joinable()) t.join();
}

std::string SimSprdEngine::GetStepName(int step) {
    std::lock_guard g(mutex_);
    if (step < 0 || step >= static_cast<int>(steps_.size())) return "";
    return app::texts::kSprdStepNames[steps_[static_cast<std::size_t>(step)]];
}

// The engine's own thread for one port: step, progress and result messages keyed by port.
void SimSprdEngine::RunPort(unsigned long port, bool phase1, const PhoneProfile& p, std::uint64_t bytes) {
    const SimPhoneRegistry::Link link(registry_, p.plug, wait_);
    window_.Send(app::SprdBegin{port});
    const Step* steps = phase1 ? kPhase1Steps : kPhase2Steps;
    const int count = phase1 ? static_cast<int>(std::size(kPhase1Steps)) : static_cast<int>(std::size(kPhase2Steps));
    const int firstIndex = phase1 ? 0 : 3;  // failingStep counts phase 1's steps first
    const Millis stepMs = phase1 ? p.sprdPhase1Ms / count : p.durationMs / count;
    std::string error;
    for (int i = 0; i < count && error.empty(); ++i) {
        const Step step = steps[i];
        {
            std::lock_guard g(mutex_);
            steps_.push_back(static_cast<int>(step));
        }
        window_.Send(app::SprdStepNamed{port});
        window_.Send(app::SprdStepEntered{port, step});
        Millis ms = stepMs + (step == Step::DOWNLOADING && !phase1 ? TransferMs(p, bytes) : 0);
        const bool failing = !p.pass && p.failingStep == firstIndex + i;
        bool interrupted = false;
        if (step == Step::DOWNLOADING) {
            for (int percent = 10; percent <= 100 && !interrupted; percent += 10) {
                interrupted = !wait_.Pause(ms / 10);
                if (!interrupted) window_.Send(app::SprdProgress{port, static_cast<std::uint32_t>(percent)});
                if (failing && percent == 50) break;
            }
        } else {
            interrupted = !wait_.Pause(ms);
        }
        // Cut short by the station (its poll gave up, or the slot was released): the
        // station counts that job failed, and so does the phone's tally. Nothing more is
        // said. A pulled phone fails its step.
        if (interrupted && !link.Lost()) {
            registry_.JobResult(p.plug, true);
            return;
        }
        if (interrupted)
            error = app::texts::kSprdStepNames[static_cast<int>(Step::UNPLUGGED)];
        else if (failing)
            error = std::string(app::texts::kSprdStepNames[static_cast<int>(step)]) + " failed";
        else if (phase1 && step == Step::CONNECTING)
            window_.Send(app::SprdIdentity{port, SimPhoneIdentity("SPRD", p.plug ? p.plug : port)});
    }
    if (error.empty() && !p.pass && !phase1) error = "Download failed";
    const bool reEnumerate = phase1 && error.empty() && p.switchPort;
    // Phase 1 passed hands over to phase 2; anything else is the phone's result.
    if (!phase1 || !error.empty()) registry_.JobResult(p.plug, !error.empty());
    // Sent: the row shows the result before the phone's switch is announced.
    window_.Send(app::SprdResult{port, std::move(error), reEnumerate});
    if (reEnumerate) registry_.NotifySwitch({SwitchEvent::SPRD_TO_DOWNLOAD_PORT, "", port, -1});
}

std::unique_ptr<MtkEngine> SimEngineFactory::MakeMtk(app::MessageWindow& window) {
    return std::make_unique<SimMtkEngine>(station_, registry_, window);
}
std::unique_ptr<FpEngine> SimEngineFactory::MakeFp(app::MessageWindow& window) {
    return std::make_unique<SimFpEngine>(station_, registry_, window);
}
std::unique_ptr<SprdEngine> SimEngineFactory::MakeSprd(app::MessageWindow& window) {
    return std::make_unique<SimSprdEngine>(station_, registry_, window);
}

}  // namespace quorvel::engine
