#include "present/AboutDialogLogic.h"

#include <cstdio>

#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::app {

AboutDialogLogic::AboutDialogLogic(Station& station, const VersionInfo& v, std::string versionLine,
                                   std::string compilerLine, std::string dateLine)
    : station_(station),
      versionLine_(std::move(versionLine)),
      compilerLine_(std::move(compilerLine)),
      dateLine_(std::move(dateLine)),
      preselected_(station.language.LanguageId() == kLangEnglish ? ENGLISH : AUTO),
      languageOnOpen_(station.language.LanguageId()) {
    char line[512];
    engineLines_.push_back("SP_MTK DLL Version");
    std::snprintf(line, sizeof line, "DA_v:%s; Build:%s", FieldText(v.daVersion).c_str(), FieldText(v.daBuild).c_str());
    engineLines_.push_back(line);
    std::snprintf(line, sizeof line, "%s; Build:%s", FieldText(v.module1Version).c_str(),
                  FieldText(v.module1Build).c_str());
    engineLines_.push_back(line);
    std::snprintf(line, sizeof line, "%s; Build:%s", FieldText(v.module2Version).c_str(),
                  FieldText(v.module2Build).c_str());
    engineLines_.push_back(line);
}

std::string AboutDialogLogic::LanguageGroup() const { return station_.language.ChooseText(texts::kLanguageGroup); }
std::string AboutDialogLogic::ConfirmButton() const { return station_.language.ChooseText(texts::kConfirmButton); }

void AboutDialogLogic::Confirm(Choice choice) {
    station_.language.SetLanguageId(choice == ENGLISH ? kLangEnglish : kLangChinese);
    if (station_.language.LanguageId() != languageOnOpen_) station_.restartRequired = true;
}

}  // namespace quorvel::app
