#include "support/StationFixture.h"

namespace quorvel::test {

StationFixture::StationFixture(std::uint16_t systemLanguage_, std::string mac_)
    : systemLanguage(systemLanguage_), mac(std::move(mac_)) {
    app::StationOptions options;
    options.exeDir = dir.Path();
    options.systemLanguage = [this] { return this->systemLanguage; };
    options.machineStamp = [this] { return this->mac; };
    station = std::make_unique<app::Station>(std::move(options), clock, ui);
}

void StationFixture::WriteSettings(const std::string& contents) const { dir.Write("Config/CommonSetting.ini", contents); }

std::string StationFixture::SettingsFile() const { return dir.File("Config/CommonSetting.ini"); }

std::string StationFixture::ReadSettings() const { return dir.Read("Config/CommonSetting.ini"); }

}  // namespace quorvel::test
