#pragma once
// What the about dialog does, without its window: the version lines, the language
// buttons and what Confirm changes. Called by the dialog while the station thread waits.

#include <string>
#include <vector>

#include "engines/EngineRecords.h"

namespace quorvel::app {

class Station;

class AboutDialogLogic {
public:
    enum Choice { CHINESE, ENGLISH, AUTO };

    // `versions`: those of the first worker's engine, or empty.
    AboutDialogLogic(Station& station, const EngineVersions& versions, std::string versionLine,
                     std::string compilerLine, std::string dateLine);

    const std::vector<std::string>& EngineLines() const { return engineLines_; }
    const std::string& VersionLine() const { return versionLine_; }
    const std::string& CompilerLine() const { return compilerLine_; }
    const std::string& DateLine() const { return dateLine_; }
    std::string LanguageGroup() const;
    std::string ConfirmButton() const;
    Choice Preselected() const { return preselected_; }

    // Confirm with the chosen button; sets RestartRequired when the language changed.
    void Confirm(Choice choice);

private:
    Station& station_;
    std::vector<std::string> engineLines_;
    std::string versionLine_, compilerLine_, dateLine_;
    Choice preselected_;
    std::uint32_t languageOnOpen_;
};

}  // namespace quorvel::app
