#include "engines/program/ProgramFpEngine.h"

#include "engines/program/ProgramMtkEngine.h"
#include "station/Station.h"

namespace quorvel::engine {

ProgramFpEngine::ProgramFpEngine(ProgramContext& context, app::MessageWindow& window,
                                 std::unique_ptr<FpEngine> packageEngine)
    : context_(context), window_(window), package_(std::move(packageEngine)), job_(context.station.clock) {}

int ProgramFpEngine::PreLoadFiles_FP(const char* cfgPath) {
    // Other packages pass through here too; only a CFG package is this program's.
    if (context_.station.package.kind != app::PackageKind::MtkCfg) return package_->PreLoadFiles_FP(cfgPath);
    job_.Reset();
    const int r = RunPackageOperation(context_, job_, context_.settings.fp, "FP", {"--preload"}, cfgPath ? cfgPath : "",
                                      {"DownloadType=" + std::to_string(downloadType_)}, [](const protocol::Event&) {});
    if (r < 0) return package_->PreLoadFiles_FP(cfgPath);
    return r == 1 ? 0 : 1;
}

void ProgramFpEngine::SetDeviceInfo(app::DeviceInfo* device) {
    if (device) device_ = *device;
}

void ProgramFpEngine::SetDLPara(int threadIndex) {
    slot_ = threadIndex;
    job_.Reset();
}

int ProgramFpEngine::MTKFP_OperationStart() {
    const FileRows noFiles;
    JobRequest request;
    std::string error;
    context_.MakeJob(context_.settings.fp, "FP", slot_,
                     context_.PhoneValues(device_, context_.station.package.cfgFilePath),
                     {"DownloadType=" + std::to_string(downloadType_)}, &noFiles, request, error);
    return RunMtkStyleProgram(context_, job_, window_, slot_, request, error, false, device_.instanceId);
}

}  // namespace quorvel::engine
