#pragma once
// The bench check's look at reporting: a [REPORT] section that is malformed, or a broker
// that cannot be reached or refuses the station, as a finding with its fix. Connects
// once, for a few seconds at most. Any thread.

#include <optional>

#include "devices/BenchSurvey.h"
#include "platform/Clock.h"

namespace quorvel::report {

inline constexpr platform::Millis kBrokerCheckMs = 3000;

// `stationFolder` with a trailing '/'. Nothing when reporting is off or the broker took us.
std::optional<devices::Finding> CheckBroker(const std::string& stationFolder, platform::Clock& clock,
                                            platform::Millis timeoutMs = kBrokerCheckMs);

}  // namespace quorvel::report
