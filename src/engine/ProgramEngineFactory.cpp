#include "engine/ProgramEngineFactory.h"

#include "app/Station.h"
#include "engine/ProgramFpEngine.h"
#include "engine/ProgramMtkEngine.h"
#include "engine/ProgramSprdEngine.h"

namespace quorvel::engine {

ProgramEngineFactory::ProgramEngineFactory(app::Station& station, EngineFactory& fallback,
                                           std::function<void(const SwitchEvent&)> switchHook)
    : station_(station), fallback_(fallback), switchHook_(std::move(switchHook)) {}

ProgramContext& ProgramEngineFactory::Context() {
    std::lock_guard g(mutex_);
    if (!context_)
        context_ = std::make_unique<ProgramContext>(
            station_, ProgramSettings::Load(station_.settingsStore.FilePath()), switchHook_);
    return *context_;
}

const ProgramSettings& ProgramEngineFactory::Settings() { return Context().settings; }

std::unique_ptr<MtkEngine> ProgramEngineFactory::MakeMtk(platform::MessageWindow& window) {
    ProgramContext& c = Context();
    if (c.settings.mtk.empty()) return fallback_.MakeMtk(window);
    return std::make_unique<ProgramMtkEngine>(c, window, fallback_.MakeMtk(window));
}

std::unique_ptr<FpEngine> ProgramEngineFactory::MakeFp(platform::MessageWindow& window) {
    ProgramContext& c = Context();
    if (c.settings.fp.empty()) return fallback_.MakeFp(window);
    return std::make_unique<ProgramFpEngine>(c, window, fallback_.MakeFp(window));
}

std::unique_ptr<SprdEngine> ProgramEngineFactory::MakeSprd(platform::MessageWindow& window) {
    ProgramContext& c = Context();
    if (c.settings.sprd.empty()) return fallback_.MakeSprd(window);
    return std::make_unique<ProgramSprdEngine>(c, window);
}

}  // namespace quorvel::engine
