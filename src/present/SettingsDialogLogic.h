#pragma once
// What the settings dialog does, without its window: the package path, the kind
// recognised from it, the operation list and what OK, Load and Cancel store.
// Called by the dialog while it runs modally for the station thread, which waits;
// so no job and no other handler touches the package selection meanwhile.

#include <optional>
#include <string>
#include <vector>

#include "station/TellOperator.h"

namespace quorvel::app {

class Station;

class SettingsDialogLogic {
public:
    // OK's messages go to `tell`, at the moment they arise.
    SettingsDialogLogic(Station& station, TellOperator tell) : station_(station), tell_(std::move(tell)) {}

    // Texts, path, operation list and preselection for the current package.
    void Open();
    // The operator chose a file (nullopt: the file dialog was cancelled).
    void Load(const std::optional<std::string>& path);
    void Select(int entry) { selected_ = entry; }
    // True when the dialog closes with OK; false keeps it open (a message was shown).
    bool Ok();
    void Cancel();

    const std::string& PathText() const { return path_; }
    const std::vector<std::string>& Entries() const { return entries_; }
    bool ListEnabled() const { return listEnabled_; }
    int Selected() const { return selected_; }  // -1 none

    // Window texts in the current language.
    std::string Title() const;
    std::string PathLabel() const;
    std::string LoadButton() const;
    std::string OkButton() const;
    std::string CancelButton() const;
    // The open-file dialog's filters: a name shown as it stands and its patterns, which
    // need not agree (the name says "*.bin" where the patterns take "*.pac" and "*.cfg").
    struct FileFilterEntry {
        std::string name;
        std::vector<std::string> patterns;
    };
    static std::vector<FileFilterEntry> FileFilters();

private:
    void FillList();

    Station& station_;
    TellOperator tell_;
    std::string path_;
    std::vector<std::string> entries_;
    bool listEnabled_ = true;
    int selected_ = -1;
};

}  // namespace quorvel::app
