#include "report/BrokerCheck.h"

#include "report/MqttLink.h"
#include "report/ReportSettings.h"

namespace quorvel::report {

std::optional<devices::Finding> CheckBroker(const std::string& stationFolder, platform::Clock& clock,
                                            platform::Millis timeoutMs) {
    const std::string ini = stationFolder + "Config/CommonSetting.ini";
    const ReportSettingsRead read = ReadReportSettings(ini, stationFolder);
    if (!read.error.empty()) return devices::Finding{read.error, "correct the [REPORT] section of " + ini};
    if (!read.settings) return std::nullopt;
    const ReportSettings& s = *read.settings;
    const std::string result = ProbeBroker(s, clock, timeoutMs);
    if (result.empty()) return std::nullopt;
    if (result.rfind("refused: ", 0) == 0) {
        const bool credentials =
            result.find("authori") != std::string::npos || result.find("password") != std::string::npos;
        return devices::Finding{"the broker " + s.broker + " refuses the station (" + result.substr(9) + ")",
                                credentials
                                    ? "set [REPORT] User and PasswordFile to an account the broker accepts"
                                    : "allow the station in the broker's configuration (its log says why it refused)"};
    }
    const std::string why = result.rfind("unreachable: ", 0) == 0 ? result.substr(13) : result;
    return devices::Finding{"the broker " + s.broker + " cannot be reached (" + why + ")",
                            "start the broker, or correct [REPORT] Broker (host and port) and let the firewall "
                            "pass it"};
}

}  // namespace quorvel::report
