#pragma once
// The [REPORT] section of CommonSetting.ini: where the station reports to and as whom.
// Plain functions, any thread.

#include <optional>
#include <string>
#include <string_view>

namespace quorvel::report {

// Where a broker is: mqtt://host[:port] (1883) or mqtts://host[:port] (8883).
struct BrokerAddress {
    std::string host;
    int port = 1883;
    bool tls = false;
};
// Reads `url` into `out`; empty when it is well formed, else why not ("has a port outside
// 1..65535"), to follow the address in a message.
std::string ParseBrokerAddress(std::string_view url, BrokerAddress& out);

struct ReportSettings {
    std::string broker;  // as written, for messages (never holds the password)
    bool tls = false;    // mqtts://
    std::string host;
    int port = 1883;
    std::string station;  // the name in every topic
    std::string user;
    std::string password;  // the first line of PasswordFile
    std::string caFile;    // empty: the system's CA store
};

// What a [REPORT] section says: no settings without a broker; an error (one message,
// the station then runs without reporting) when something in it is malformed.
struct ReportSettingsRead {
    std::optional<ReportSettings> settings;
    std::string error;
};

struct ReportSection {
    std::string broker, station, user, passwordFile, caFile;
};

// `hostName`: the station's name when the section gives none.
ReportSettingsRead CheckReportSection(const ReportSection& section, const std::string& hostName);
// Reads [REPORT] of `iniPath`; relative file names are taken from `baseDir`.
ReportSettingsRead ReadReportSettings(const std::string& iniPath, const std::string& baseDir);
// This machine's host name, cut to a valid station name ("station" when it has none).
std::string DefaultStationName();
// "quorvel/<station>/".
std::string TopicRoot(const ReportSettings& settings);

}  // namespace quorvel::report
