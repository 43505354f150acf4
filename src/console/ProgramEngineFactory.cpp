#include "console/ProgramEngineFactory.h"

#include "engines/program/ProgramCheck.h"
#include "engines/program/ProgramFpEngine.h"
#include "engines/program/ProgramMtkEngine.h"
#include "engines/program/ProgramSprdEngine.h"
#include "station/Station.h"

namespace quorvel::engine {

ProgramEngineFactory::ProgramEngineFactory(app::Station& station, EngineFactory& fallback,
                                           std::function<void(const SwitchEvent&)> switchHook,
                                           SimPhoneRegistry* benchPhones, ProgramContext::PortDevices portDevices)
    : station_(station),
      fallback_(fallback),
      switchHook_(std::move(switchHook)),
      benchPhones_(benchPhones ? std::make_unique<SimProgramPhones>(*benchPhones) : nullptr),
      portDevices_(std::move(portDevices)) {}

ProgramContext& ProgramEngineFactory::Context() {
    std::lock_guard g(mutex_);
    if (context_) return *context_;
    ProgramSettings s = ProgramSettings::Load(station_.settingsStore.FilePath());
    const bool bench = s.benchProgram && station_.settings.simulatedBench && benchPhones_;
    // The native engine over USB cannot reach a simulated phone: on the simulated bench it
    // flashes them at the protocol level (NativeSprd=1) over their sockets, or is set aside.
    if (station_.settings.simulatedBench && IsNativeSprdOverUsb(s.sprd)) s.sprd.clear();
    const bool native =
        station_.settings.benchNativeSprd && station_.settings.simulatedBench && benchPhones_ && s.sprd.empty();
    if (native)
        s.sprd = NativeSprdCommandLine(FindBenchProgram(station_.ExeDir(), kSprdFlashProgram), NativeSprdRunDir());
    if (bench) {
        const auto* scaled = dynamic_cast<const platform::ScaledClock*>(&station_.clock);
        const double scale = scaled ? scaled->Factor() : 1.0;
        const std::string program = FindSimEngineProgram(station_.ExeDir());
        for (auto [line, platform] : {std::pair{&s.mtk, "MTK"}, {&s.fp, "FP"}, {&s.sprd, "SPRD"}})
            if (line->empty()) *line = SimEngineCommandLine(program, platform, scale);
    }
    context_ = std::make_unique<ProgramContext>(station_, std::move(s), switchHook_,
                                                bench || native ? benchPhones_.get() : nullptr, portDevices_,
                                                bench ? (native ? "MTK FP" : "MTK FP SPRD") : "");
    return *context_;
}

const ProgramSettings& ProgramEngineFactory::Settings() {
    return Context().settings;
}

std::unique_ptr<MtkEngine> ProgramEngineFactory::MakeMtk(app::MessageWindow& window) {
    ProgramContext& c = Context();
    if (c.settings.mtk.empty()) return fallback_.MakeMtk(window);
    return std::make_unique<ProgramMtkEngine>(c, window, fallback_.MakeMtk(window));
}

std::unique_ptr<FpEngine> ProgramEngineFactory::MakeFp(app::MessageWindow& window) {
    ProgramContext& c = Context();
    if (c.settings.fp.empty()) return fallback_.MakeFp(window);
    return std::make_unique<ProgramFpEngine>(c, window, fallback_.MakeFp(window));
}

std::unique_ptr<SprdEngine> ProgramEngineFactory::MakeSprd(app::MessageWindow& window) {
    ProgramContext& c = Context();
    if (c.settings.sprd.empty()) return fallback_.MakeSprd(window);
    return std::make_unique<ProgramSprdEngine>(c, window);
}

std::string ProgramEngineFactory::StartProblem(app::PackageKind kind) {
    using app::PackageKind;
    const ProgramSettings& s = Context().settings;
    const char* platform = kind == PackageKind::MtkScatter ? "MTK"
                           : kind == PackageKind::SprdPac  ? "SPRD"
                           : kind == PackageKind::MtkCfg   ? "FP"
                                                           : nullptr;
    const std::string& line = kind == PackageKind::MtkScatter ? s.mtk : kind == PackageKind::SprdPac ? s.sprd : s.fp;
    if (!platform || line.empty()) return {};
    const ProgramCheckResult r = CheckEngineProgram(line, station_.ExeDir(), station_.clock);
    if (r.ok) return {};
    return std::string("The engine program for ") + platform +
           " cannot run: " + (r.program.empty() ? line : r.program) + ": " + r.problem;
}

}  // namespace quorvel::engine
