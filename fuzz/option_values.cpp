// CommonSetting.ini as arbitrary bytes, loaded as the station loads it at start-up: no
// crash, and the lists made from option values hold no empty or comma-bearing names.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzScratch.h"
#include "platform/Clock.h"
#include "platform/ProfileIni.h"
#include "station/Station.h"
#include "support/FixedOptions.h"

using namespace quorvel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Scratch scratch;
    static platform::ManualClock clock;
    const std::string text(reinterpret_cast<const char*>(data), size);
    scratch.Write("Config/CommonSetting.ini", data, size);

    static app::Station station(test::FixedOptions(scratch.Path()), clock);
    // Nothing left over from an earlier input.
    station.settings = app::Settings{};
    station.package = app::PackageSelection{};
    station.settingsStore.LanguageLoad();
    if (station.settingsStore.SettingsLoad()) {
        for (const auto& name : station.settings.ServiceNameList)
            if (name.empty() || name.find(',') != std::string::npos) std::abort();
        for (const auto& [service, driver] : station.settings.serviceDrivers)
            if (service.empty() || service.find(',') != std::string::npos) std::abort();
    }
    // The option conversions on the raw bytes too.
    (void)platform::ParseUnsigned(text);
    (void)platform::ProfileIni::ReadIntFrom(text, "COMMON", "SleepTimeRestart", 7);
    return 0;
}
