// Scenario parsing on arbitrary bytes: no crash, and what it accepts is well-formed.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sim/Scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    const auto s = quorvel::sim::ParseScenario(text, &error);
    if (!s) {
        if (error.rfind("line ", 0) != 0) std::abort();
        return 0;
    }
    quorvel::platform::Millis last = 0;
    for (const auto& step : s->steps) {
        if (step.at < last) std::abort();
        const bool onSocket =
            step.action == quorvel::sim::ScenarioStep::PLUG || step.action == quorvel::sim::ScenarioStep::UNPLUG;
        if (onSocket && (step.socket < 0 || step.socket > 255)) std::abort();
        last = step.at;
    }
    if (s->end != last) std::abort();
    return 0;
}
