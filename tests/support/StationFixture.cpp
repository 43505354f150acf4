#include "support/StationFixture.h"

namespace quorvel::test {

std::string UnboundSettings(const std::string& common, const std::string& mac) {
    std::string text = "[COMMON]\nMac=" + mac + "\n" + common;
    for (const char* section : {"USBPORTINFO", "BROMPORTINFO", "COM"}) {
        text += std::string("[") + section + "]\n";
        for (int i = 0; i < app::kSlotCount; ++i) text += "Index" + std::to_string(i) + "=NA\n";
    }
    return text;
}

StationFixture::StationFixture(std::uint16_t systemLanguage_, std::string mac_)
    : systemLanguage(systemLanguage_), mac(std::move(mac_)) {
    app::StationOptions options;
    options.exeDir = dir.Path();
    options.systemLanguage = [this] { return this->systemLanguage; };
    options.machineStamp = [this] { return this->mac; };
    station = std::make_unique<app::Station>(std::move(options), clock);
}

void StationFixture::WriteSettings(const std::string& contents) const {
    dir.Write("Config/CommonSetting.ini", contents);
}

std::string StationFixture::SettingsFile() const {
    return dir.File("Config/CommonSetting.ini");
}

void StationFixture::UnbindAllSlots() const {
    for (int n = 0; n < app::kSlotCount; ++n) {
        station->bindings.SetHsLocation(n, app::kUnbound);
        station->bindings.SetLsLocation(n, app::kUnbound);
        station->bindings.SetComName(n, app::kUnbound);
        station->bindings.SetState(n, app::BindState::Idle);
    }
}

std::string StationFixture::ReadSettings() const {
    return dir.Read("Config/CommonSetting.ini");
}

}  // namespace quorvel::test
