#pragma once
// A station on a temporary station folder, with a recording console, virtual
// time, a fixed system language and a fixed machine stamp.

#include <memory>
#include <string>

#include "console/ConsoleUi.h"
#include "platform/Clock.h"
#include "station/Station.h"
#include "support/FixedOptions.h"
#include "support/TempDir.h"

namespace quorvel::test {

// A settings file stamped `mac` (the fixture's PC by default), with `common` under [COMMON]
// and every slot's locations and port "NA", as the shipped settings have them.
std::string UnboundSettings(const std::string& common, const std::string& mac = "00-11-22-33-44-55");

// Options for a station in `exeDir` on an English system with the fixture's machine stamp.

class StationFixture {
public:
    explicit StationFixture(std::uint16_t systemLanguage = 1033, std::string mac = "00-11-22-33-44-55");

    // Writes Config/CommonSetting.ini (creating Config/).
    void WriteSettings(const std::string& contents) const;
    std::string SettingsFile() const;
    std::string ReadSettings() const;
    // Every slot "NA" and idle, as a station starts from the shipped settings.
    void UnbindAllSlots() const;

    TempDir dir;
    platform::ManualClock clock;
    app::HeadlessConsoleUi ui;
    std::uint16_t systemLanguage;
    std::string mac;
    std::unique_ptr<app::Station> station;
};

}  // namespace quorvel::test
