#pragma once
// The SPRD engine as an engine program: each StartOnePortWork runs the program for
// one phase of the phone on that port, on the engine's own thread, and its protocol
// lines become the WM_APP+201.. messages keyed by the port.
// Threads: as SprdEngine (EngineInterfaces.h); StopOnePortWork ends the program and
// waits for the engine thread; GetStepName from the station thread.

#include <mutex>
#include <thread>

#include "engines/EngineInterfaces.h"
#include "engines/program/ProgramContext.h"

namespace quorvel::engine {

class ProgramSprdEngine final : public SprdEngine {
public:
    ProgramSprdEngine(ProgramContext& context, app::MessageWindow& window);
    ~ProgramSprdEngine() override;

    void SetSPRDParameters(int selectedFileCount, unsigned long port, std::string productName,
                           std::vector<app::DlFileInfo> files, std::string configFilePath) override;
    int StartWork() override;
    int StartOnePortWork(unsigned long port, int) override;
    int StopOnePortWork(unsigned long port, int) override;
    std::string GetStepName(int step) override;

private:
    void RunPort(unsigned long port, const JobRequest& request, const std::string& makeError, bool phase1);
    void StopThread();

    ProgramContext& context_;
    app::MessageWindow& window_;
    ProgramJob job_;
    std::mutex mutex_;  // guards the fields below
    bool firstPhase_ = false;
    int selectedFileCount_ = 0;
    std::string productName_, configFilePath_;
    FileRows fileLines_;
    std::vector<int> steps_;  // step numbers of the running port, for GetStepName
    std::thread thread_;
};

}  // namespace quorvel::engine
