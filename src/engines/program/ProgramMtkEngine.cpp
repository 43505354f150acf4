#include "engines/program/ProgramMtkEngine.h"

#include <algorithm>
#include <cstdio>

#include "engines/SlotOutcome.h"
#include "engines/program/ProgramCheck.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::engine {

namespace {

std::string Option(const char* name, const std::string& value) {
    return std::string(name) + "=" + value;
}
std::string Option(const char* name, int value) {
    return Option(name, std::to_string(value));
}

// A well-known status key in Chinese or English (English for the job's outcome, whatever
// the operator reads); otherwise the program's own text.
std::string StatusText(bool chinese, const protocol::Event& e) {
    static const std::pair<const char*, const app::LangText*> keys[] = {
        {"bind", &app::texts::kStatusBindIndex},
        {"da_switched", &app::texts::kStatusSwitchDa},
        {"formatting", &app::texts::kStatusFormatting},
        {"meta", &app::texts::kStatusEnterMeta},
        {"memory_test", &app::texts::kStatusMemoryTesting},
        {"downloading", &app::texts::kSimDownloading},
        {"complete", &app::texts::kStatusDownloadComplete},
        {"failed", &app::texts::kSimFailed},
        {"cancelled", &app::texts::kSimCancelled},
    };
    for (const auto& [key, text] : keys)
        if (e.key == key) return chinese ? text->zh : text->en;
    return e.text.empty() ? e.key : e.text;
}

}  // namespace

int RunMtkStyleProgram(ProgramContext& context, ProgramJob& job, app::MessageWindow& window, int slot,
                       const JobRequest& request, const std::string& makeError, bool daSwitch,
                       const std::string& instanceId) {
    // The bar's numbers are posted: the job does not wait for the station for each of
    // them. Texts, the account and the verdict are sent, so the row shows them before
    // the job goes on.
    auto status = [&](const std::string& text) { window.Send(app::SlotStatus{slot, text}); };
    auto bar = [&](app::BarValue what, std::uint64_t v) {
        window.Post(app::SlotBar{slot, what, static_cast<std::uint32_t>(v)});
    };
    auto verdict = [&](bool passed) { window.Send(app::SlotVerdict{slot, passed}); };
    auto choose = [&](const app::LangText& t) { return context.station.language.ChooseText(t); };
    // The slot's binding state follows this, not the status text after it.
    auto daSwitched = [&] { window.Send(app::SlotDaSwitched{slot}); };

    const BenchPhone phone(context, instanceId, 0, job);
    JobOutcome outcome{JobOutcome::FAULT, makeError};
    // A new job starts from nothing: no count, no total, no percent left from the last.
    bar(app::BarValue::DONE, 0);
    bar(app::BarValue::TOTAL, kUnknown);
    bar(app::BarValue::PERCENT, 0);
    std::string step;  // the program's last status, in the outcome's words
    if (makeError.empty()) {
        std::uint64_t lastTotal = ~0ull, lastPercent = ~0ull;
        // A percent the row already shows is not sent again: the done count recomposes it.
        auto percent = [&](std::uint64_t p) {
            if (p != lastPercent) bar(app::BarValue::PERCENT, p);
            lastPercent = p;
        };
        outcome = job.Run(request, [&](const protocol::Event& e) {
            switch (e.type) {
                case protocol::Event::STATUS:
                    step = StatusText(false, e);
                    if (e.key == "da_switched") daSwitched();
                    status(StatusText(context.station.language.ChineseChosen(), e));
                    break;
                case protocol::Event::PROGRESS: {
                    if (e.total) {
                        const std::uint64_t total = std::min<std::uint64_t>(*e.total, 0xFFFFFFFEu);
                        if (total != lastTotal) bar(app::BarValue::TOTAL, total);
                        lastTotal = total;
                        // A count past its total is the program's slip: the row never shows one.
                        bar(app::BarValue::DONE, std::min<std::uint64_t>(*e.done, total));
                    }
                    if (e.percent)
                        percent(static_cast<std::uint64_t>(*e.percent));
                    else if (e.total && *e.total > 0)
                        percent(*e.done * 100 / *e.total);
                    break;
                }
                case protocol::Event::DEVICE: window.Send(app::SlotIdentity{slot, e.device}); break;
                case protocol::Event::SWITCH:
                    if (daSwitch) {
                        daSwitched();
                        status(choose(app::texts::kStatusSwitchDa));
                        context.NotifySwitch({SwitchEvent::MTK_TO_DA, instanceId, 0, slot});
                    }
                    break;
                default: break;
            }
        });
    }
    // A pulled phone fails the job rather than cancelling it.
    const bool pulled = outcome.kind == JobOutcome::CANCELLED && phone.Lost();
    if (pulled) outcome = {JobOutcome::FAILED, ""};
    const int r = outcome.kind == JobOutcome::PASSED      ? 0
                  : outcome.kind == JobOutcome::FAILED    ? 1
                  : outcome.kind == JobOutcome::CANCELLED ? 2
                                                          : 3;
    phone.Result(r != 0);
    if (outcome.kind == JobOutcome::PASSED) {
        status(choose(app::texts::kStatusDownloadComplete));
        bar(app::BarValue::PERCENT, 100);
        verdict(true);
        return r;
    }
    app::SlotAccount told{slot, step, outcome.text};
    if (outcome.kind == JobOutcome::CANCELLED) told.error = app::texts::kReasonCancelled;
    if (outcome.kind == JobOutcome::FAILED && outcome.text.empty())
        told.error = pulled ? app::texts::kReasonUnplugged : app::texts::kReasonEngineGaveNone;
    window.Send(std::move(told));
    switch (outcome.kind) {
        case JobOutcome::PASSED: break;
        case JobOutcome::FAILED: status(outcome.text.empty() ? choose(app::texts::kSimFailed) : outcome.text); break;
        case JobOutcome::CANCELLED: status(choose(app::texts::kSimCancelled)); break;
        case JobOutcome::FAULT: status(outcome.text); break;
    }
    verdict(false);
    return r;
}

int RunPackageOperation(ProgramContext& context, ProgramJob& job, const std::string& commandLine, const char* platform,
                        const std::vector<std::string>& operation, const std::string& package,
                        const std::vector<std::string>& options,
                        const std::function<void(const protocol::Event&)>& onEvent) {
    JobRequest request;
    std::string error;
    if (!context.MakeOperation(commandLine, platform, operation, package, options, request, error)) return -1;
    const JobOutcome outcome = job.Run(request, onEvent);
    if (outcome.kind == JobOutcome::FAULT && outcome.noResult) return -1;
    if (outcome.kind == JobOutcome::PASSED) return 1;
    const std::string reason = !outcome.text.empty()                   ? outcome.text
                               : outcome.kind == JobOutcome::CANCELLED ? app::texts::kReasonCancelled
                                                                       : app::texts::kReasonEngineGaveNone;
    char text[2048];
    std::snprintf(text, sizeof text, app::texts::kEngineCheckFailedFormat, platform, operation.front().c_str(),
                  request.argv.front().c_str(), reason.c_str());
    context.station.settingsStore.UiLog(text);
    context.station.view.SetNotice(text);
    return 0;
}

ProgramMtkEngine::ProgramMtkEngine(ProgramContext& context, app::MessageWindow& window,
                                   std::unique_ptr<MtkEngine> packageEngine)
    : context_(context), window_(window), package_(std::move(packageEngine)), job_(context.station.clock) {}

void ProgramMtkEngine::SetDLPara(int threadIndex, int checkVersion, int bromLog, int flashCheckSum,
                                 int forceWatchdogReset, int enableAutoPulling, int battery, int, const char*,
                                 const char* nvramFile, const char* proinfoFile, int upgradeBkNv,
                                 int cleanBinRegionData, int nvDataZip) {
    slot_ = threadIndex;
    daPort_ = -1;
    efuse_ = 0;
    efuseOptions_.clear();
    options_ = {Option("CheckVersion", checkVersion),
                Option("BromLog", bromLog),
                Option("FlashCheckSum", flashCheckSum),
                Option("ForceWatchdogReset", forceWatchdogReset),
                Option("EnableAutoPulling", enableAutoPulling),
                Option("Battery", battery),
                Option("NvramFile", nvramFile ? nvramFile : ""),
                Option("ProinfoFile", proinfoFile ? proinfoFile : ""),
                Option("UpgradeBkNv", upgradeBkNv),
                Option("CleanBinRegionData", cleanBinRegionData),
                Option("NvDataZip", nvDataZip)};
    job_.Reset();
}

void ProgramMtkEngine::SetMemoryTestPara(int dataBus, int addrBus, int patternTest, int incDecTest, int patternNum) {
    memoryOptions_ = {Option("DataBus", dataBus), Option("AddrBus", addrBus), Option("PatternTest", patternTest),
                      Option("IncDecTest", incDecTest), Option("PatternNum", patternNum)};
}

void ProgramMtkEngine::SetEfusePara(int enabled, const char* xmlPath, int, const char*, const char* daBr,
                                    const char* daPl) {
    efuse_ = enabled;
    efuseOptions_ = {Option("EfuseXml", xmlPath ? xmlPath : ""), Option("DaBr", daBr ? daBr : ""),
                     Option("DaPl", daPl ? daPl : "")};
}

void ProgramMtkEngine::SetDAPort(int threadIndex) {
    daPort_ = threadIndex;
}
void ProgramMtkEngine::SetDownloadType(int type) {
    downloadType_ = type;
}

void ProgramMtkEngine::SetDeviceInfo(app::DeviceInfo* device) {
    if (device) device_ = *device;
}

int ProgramMtkEngine::DLOperationStart() {
    std::vector<std::string> options = options_;
    options.insert(options.end(), memoryOptions_.begin(), memoryOptions_.end());
    options.push_back(Option("DownloadType", downloadType_));
    options.push_back(Option("DaPort", daPort_));
    if (efuse_) options.insert(options.end(), efuseOptions_.begin(), efuseOptions_.end());
    const FileRows noFiles;
    JobRequest request;
    std::string error;
    context_.MakeJob(context_.settings.mtk, "MTK", slot_,
                     context_.PhoneValues(device_, context_.station.package.scatterFilePath), options, &noFiles,
                     request, error);
    return RunMtkStyleProgram(context_, job_, window_, slot_, request, error, true, device_.instanceId);
}

int ProgramMtkEngine::PreLoadFiles(char* scatterPath, bool a2, int checksum, int type, app::SpmtkEfuseInfo efuse,
                                   bool reserve) {
    std::vector<std::string> options{Option("FlashCheckSum", checksum), Option("DownloadType", type),
                                     Option("ReserveUserData", reserve ? 1 : 0)};
    if (efuse.EfuseEnabled)
        options.insert(options.end(), {Option("DaBr", efuse.DaBrFile ? efuse.DaBrFile : ""),
                                       Option("DaPl", efuse.DaPlFile ? efuse.DaPlFile : "")});
    job_.Reset();
    const int r = RunPackageOperation(context_, job_, context_.settings.mtk, "MTK", {"--preload"},
                                      scatterPath ? scatterPath : "", options, [](const protocol::Event&) {});
    if (r < 0) return package_->PreLoadFiles(scatterPath, a2, checksum, type, efuse, reserve);
    return r == 1 ? 0 : 1;
}

// The program's progress lines name the file being checked; each becomes a checksum record.
int ProgramMtkEngine::VerifyHostBufferBeforeStart(const char* ini) {
    const std::string checksumFile = ini ? ini : "";
    std::vector<std::string> operation{"--verify", checksumFile};
    // The simulated bench decides whether verification passes.
    if (context_.Phones() && !context_.Phones()->VerifyPasses()) operation.push_back("--fail");
    app::ChecksumProgress record;
    job_.Reset();
    const int r = RunPackageOperation(
        context_, job_, context_.settings.mtk, "MTK", operation, context_.station.package.scatterFilePath, {},
        [&](const protocol::Event& e) {
            if (e.type != protocol::Event::PROGRESS || !checksumWindow_) return;
            record.path = e.file;
            record.bytesTotal = e.total.value_or(0);
            record.bytesDone = e.done.value_or(0);
            record.percent = static_cast<std::uint8_t>(e.percent           ? *e.percent
                                                       : record.bytesTotal ? record.bytesDone * 100 / record.bytesTotal
                                                                           : 0);
            checksumWindow_->Send(record);
        });
    return r < 0 ? package_->VerifyHostBufferBeforeStart(ini) : r;
}

void ProgramMtkEngine::GetVersionInfo(app::VersionInfo* info) {
    package_->GetVersionInfo(info);
    if (!info) return;
    auto fill = [&](const std::string& line, char(&version)[32], char(&build)[128]) {
        if (line.empty()) return;
        const ProgramCheckResult r = CheckEngineProgram(line, context_.station.ExeDir(), context_.station.clock);
        app::CopyField(version, r.ok ? r.version : "engine program");
        app::CopyField(build, r.ok ? r.program : r.problem);
    };
    fill(context_.settings.mtk, info->module1Version, info->module1Build);
    fill(context_.settings.fp, info->module2Version, info->module2Build);
}

}  // namespace quorvel::engine
