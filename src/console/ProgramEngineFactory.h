#pragma once
// Chooses per platform between the engine program of [ENGINES] and the engines of
// `fallback` (the simulated or in-process ones). The settings are read when the first
// engine is made, which is after the station has loaded its settings. On the simulated
// bench with [BENCH] EngineProgram=1, platforms without a program run quorvel-sim-engine
// with the profiles of `benchPhones`.
// Threads: the Make calls come from the thread that builds the slots.

#include <functional>
#include <memory>
#include <mutex>

#include "engines/EngineInterfaces.h"
#include "engines/program/ProgramContext.h"
#include "sim/SimEngineProgram.h"

namespace quorvel::engine {

class ProgramEngineFactory final : public EngineFactory {
public:
    ProgramEngineFactory(app::Station& station, EngineFactory& fallback,
                         std::function<void(const SwitchEvent&)> switchHook = nullptr,
                         SimPhoneRegistry* benchPhones = nullptr, ProgramContext::PortDevices portDevices = nullptr);

    std::unique_ptr<MtkEngine> MakeMtk(app::MessageWindow& window) override;
    std::unique_ptr<FpEngine> MakeFp(app::MessageWindow& window) override;
    std::unique_ptr<SprdEngine> MakeSprd(app::MessageWindow& window) override;
    // The configured program of the package's platform checked (ProgramCheck.h): its path
    // and the reason when it cannot run.
    std::string StartProblem(app::PackageKind kind) override;

    // The settings in use (read on first use).
    const ProgramSettings& Settings();

private:
    ProgramContext& Context();

    app::Station& station_;
    EngineFactory& fallback_;
    std::function<void(const SwitchEvent&)> switchHook_;
    std::unique_ptr<SimProgramPhones> benchPhones_;
    ProgramContext::PortDevices portDevices_;
    std::mutex mutex_;
    std::unique_ptr<ProgramContext> context_;
};

}  // namespace quorvel::engine
