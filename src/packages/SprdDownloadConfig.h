#pragma once
// CSprdDownloadConfig: one load of an SPRD PAC package on the preparation thread.
// Extracts it into the station's ImageFiles folder, decides from the package's own
// table which files are downloaded, refuses dangerous selections and publishes
// SprdDownloadParams (each piece replaced whole, so a job never reads a half-written
// record). Made, used once (LoadPackage) and discarded on the preparation thread.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "engines/EngineRecords.h"
#include "packages/BinPack.h"
#include "packages/PacFormat.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::packages {

// What the station would download from a file table, and the verdict of its checks.
struct SprdSelection {
    enum Verdict {
        SELECTION_OK,                 // all chosen as required
        SELECTION_WARN_MISSING,       // files left out, no repartition: a warning only
        SELECTION_FAIL_FLASH,         // a FLASH file exists but none is chosen (no message)
        SELECTION_FAIL_NO_NV,         // no NV file chosen
        SELECTION_FAIL_NO_NV_BACKUP,  // NvBackupFlag is 0
        SELECTION_FAIL_REPARTITION,   // files left out while the package repartitions
    };

    std::vector<app::DlFileInfo> files;  // one per entry, in table order
    std::vector<bool> chosen;            // per entry
    std::vector<bool> omittable;         // per entry
    int selectedCount = 0;
    int omittableLeft = 0;  // omittable entries not chosen
    std::string missingFileList;
    bool hasFlash = false, flashChosen = false, nvChosen = false;
    bool allRequiredChosen = false, repartitions = false;
    // Upper-case FileId -> (CheckFlag, path; empty when not chosen); a later entry wins.
    std::map<std::string, std::pair<std::uint32_t, std::string>> record;
    Verdict verdict = SELECTION_OK;
    std::string message;  // the check's message; empty for OK and FAIL_FLASH

    bool Passed() const { return verdict == SELECTION_OK || verdict == SELECTION_WARN_MISSING; }
};

// Entry rules: chosen when CheckFlag is non-zero, unless FileName is empty and FileFlags
// bit 0 is set; omittable when OmitFlag is 1. Ids compare upper-cased.
bool IsChosenForDownload(const PacFileEntry& entry);

// Classifies the first header.FileCount entries. Fails (with `error`) only when a text
// does not fit the engine's 256-byte fields.
bool SelectSprdFiles(const PacHeader& header, const std::vector<PacFileEntry>& entries, SprdSelection& out,
                     std::string& error);

class CSprdDownloadConfig {
public:
    // `preparationWindow` receives the extraction notices; may be null. `tell` gets the
    // messages for the operator when they arise (may be empty).
    CSprdDownloadConfig(app::Station& station, app::MessageWindow* preparationWindow, app::TellOperator tell);

    // Housekeeping, then BuildConfiguration; on failure housekeeping again, which
    // deletes this load's extraction folder. 1 on success, else 0.
    int LoadPackage(const char* packagePath);
    int BuildConfiguration(const char* packagePath);

    void SetTempFolderSource(CBinPack::TempFolderSource source) { tempFolder_ = std::move(source); }

private:
    void Housekeeping();

    app::Station& station_;
    app::MessageWindow* window_;
    app::TellOperator tell_;
    CBinPack::TempFolderSource tempFolder_;
    std::vector<std::string> extractionFolders_;
    std::string imageFiles_;
    PacHeader header_;
};

}  // namespace quorvel::packages
