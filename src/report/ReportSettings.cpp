#include "report/ReportSettings.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>

#include "platform/AtomicFile.h"
#include "platform/ProfileIni.h"

namespace quorvel::report {

namespace {

bool ValidStationName(const std::string& name) {
    if (name.empty() || name.size() > 64) return false;
    return std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.'; });
}

ReportSettingsRead Refuse(const std::string& why) {
    return {std::nullopt, "[REPORT] " + why + "; the station runs without reporting."};
}

}  // namespace

std::string ParseBrokerAddress(std::string_view url, BrokerAddress& out) {
    std::string_view rest = url;
    out = {};
    if (rest.rfind("mqtt://", 0) == 0) {
        rest.remove_prefix(7);
    } else if (rest.rfind("mqtts://", 0) == 0) {
        rest.remove_prefix(8);
        out.tls = true;
        out.port = 8883;
    } else {
        return "is neither mqtt://host[:port] nor mqtts://host[:port]";
    }
    if (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
    // A bracketed IPv6 address keeps its colons.
    std::size_t colon = std::string_view::npos;
    if (!rest.empty() && rest.front() == '[') {
        const std::size_t close = rest.find(']');
        if (close == std::string_view::npos) return "has no closing ]";
        out.host = std::string(rest.substr(1, close - 1));
        if (close + 1 < rest.size()) {
            if (rest[close + 1] != ':') return "has text after the address";
            colon = close + 1;
        }
    } else {
        colon = rest.find(':');
        out.host = std::string(rest.substr(0, colon));
    }
    if (colon != std::string_view::npos) {
        const std::string_view digits = rest.substr(colon + 1);
        int port = 0;
        const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
        if (digits.empty() || ec != std::errc{} || end != digits.data() + digits.size() || port < 1 || port > 65535)
            return "has a port outside 1..65535";
        out.port = port;
    }
    if (out.host.empty() || out.host.find_first_of("/@ ") != std::string::npos) return "names no host";
    return {};
}

ReportSettingsRead CheckReportSection(const ReportSection& section, const std::string& hostName) {
    if (section.broker.empty()) return {};
    ReportSettings s;
    s.broker = section.broker;
    BrokerAddress address;
    if (const std::string why = ParseBrokerAddress(section.broker, address); !why.empty())
        return Refuse("Broker " + section.broker + " " + why);
    s.tls = address.tls;
    s.host = address.host;
    s.port = address.port;

    s.station = section.station.empty() ? hostName : section.station;
    if (!ValidStationName(s.station))
        return Refuse("Station " + s.station + " may hold only letters, digits, -, _ and . (1 to 64)");
    s.user = section.user;
    if (!section.passwordFile.empty()) {
        std::string contents;
        if (!platform::ReadWholeFile(section.passwordFile, contents))
            return Refuse("PasswordFile " + section.passwordFile + " cannot be read");
        s.password = contents.substr(0, contents.find_first_of("\r\n"));
    }
    if (!section.caFile.empty()) {
        if (access(section.caFile.c_str(), R_OK) != 0) return Refuse("CaFile " + section.caFile + " cannot be read");
        s.caFile = section.caFile;
    }
    return {std::move(s), {}};
}

ReportSettingsRead ReadReportSettings(const std::string& iniPath, const std::string& baseDir) {
    const auto read = [&](const char* key) {
        return platform::ProfileIni::ReadString(iniPath, "REPORT", key, "", 1024);
    };
    const auto file = [&](const char* key) {
        std::string name = read(key);
        if (!name.empty() && name.front() != '/') name = baseDir + name;
        return name;
    };
    return CheckReportSection({read("Broker"), read("Station"), read("User"), file("PasswordFile"), file("CaFile")},
                              DefaultStationName());
}

std::string DefaultStationName() {
    char buffer[256] = {};
    std::string name;
    if (gethostname(buffer, sizeof buffer - 1) == 0) name = buffer;
    name = name.substr(0, name.find('.'));
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !(std::isalnum(c) != 0 || c == '-' || c == '_'); }, '_');
    if (name.size() > 64) name.resize(64);
    return name.empty() ? "station" : name;
}

std::string TopicRoot(const ReportSettings& settings) {
    return "quorvel/" + settings.station + "/";
}

}  // namespace quorvel::report
