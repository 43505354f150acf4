#include "present/AboutDialogLogic.h"

#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::app {

AboutDialogLogic::AboutDialogLogic(Station& station, const EngineVersions& v, std::string versionLine,
                                   std::string compilerLine, std::string dateLine)
    : station_(station),
      versionLine_(std::move(versionLine)),
      compilerLine_(std::move(compilerLine)),
      dateLine_(std::move(dateLine)),
      preselected_(station.language.LanguageId() == kLangEnglish ? ENGLISH : AUTO),
      languageOnOpen_(station.language.LanguageId()) {
    engineLines_.push_back("SP_MTK DLL Version");
    engineLines_.push_back("DA_v:" + v.daVersion + "; Build:" + v.daBuild);
    engineLines_.push_back(v.module1Version + "; Build:" + v.module1Build);
    engineLines_.push_back(v.module2Version + "; Build:" + v.module2Build);
}

std::string AboutDialogLogic::LanguageGroup() const {
    return station_.language.ChooseText(texts::kLanguageGroup);
}
std::string AboutDialogLogic::ConfirmButton() const {
    return station_.language.ChooseText(texts::kConfirmButton);
}

void AboutDialogLogic::Confirm(Choice choice) {
    station_.language.SetLanguageId(choice == ENGLISH ? kLangEnglish : kLangChinese);
    if (station_.language.LanguageId() != languageOnOpen_) station_.restartRequired = true;
}

}  // namespace quorvel::app
