#pragma once
// The MTK CFG-package engine as an engine program, one run per job; the CFG pre-load
// runs the program's --preload, or the in-process engine given as `packageEngine` when
// the program does not offer it.
// Threads: as FpEngine (EngineInterfaces.h).

#include <memory>

#include "engines/EngineInterfaces.h"
#include "engines/program/ProgramContext.h"

namespace quorvel::engine {

class ProgramFpEngine final : public FpEngine {
public:
    ProgramFpEngine(ProgramContext& context, app::MessageWindow& window, std::unique_ptr<FpEngine> packageEngine);

    int PreLoadFiles_FP(const char* cfgPath) override;
    void SetDownloadType_FP(int type) override { downloadType_ = type; }
    void SetDeviceInfo(app::DeviceInfo* device) override;
    void SetDLPara(int threadIndex) override;
    int MTKFP_OperationStart() override;
    void CancelTask() override { job_.Cancel(); }

private:
    ProgramContext& context_;
    app::MessageWindow& window_;
    std::unique_ptr<FpEngine> package_;
    ProgramJob job_;
    int slot_ = 0;
    int downloadType_ = 0;
    app::DeviceInfo device_{};
};

}  // namespace quorvel::engine
