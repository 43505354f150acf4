#include "packages/SprdDownloadConfig.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "packages/PacInspect.h"
#include "packages/PackageHousekeeping.h"
#include "packages/TextFormat.h"
#include "platform/ProfileIni.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::packages {
namespace texts = app::texts;

namespace {

std::string Upper(std::string text) {
    for (char& c : text)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return text;
}

bool StartsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

// The selection record keeps each id and product name as they stand (line breaks are the
// INI writer's concern), but for what its lines cannot hold: a ']' would end the section
// name, an '=' the key, and a key line beginning with '[' that has a ']' would read as a
// section header. Those characters are written as '_'.
std::string SectionText(std::string text) {
    std::replace(text.begin(), text.end(), ']', '_');
    return text;
}

std::string KeyText(std::string key, const std::string& value) {
    std::replace(key.begin(), key.end(), '=', '_');
    const std::size_t first = key.find_first_not_of(" \t");
    if (first != std::string::npos && key[first] == '[' &&
        (key.find(']') != std::string::npos || value.find(']') != std::string::npos))
        key[first] = '_';
    return key;
}

}  // namespace

bool IsChosenForDownload(const PacFileEntry& entry) {
    if (entry.CheckFlag == 0) return false;
    return !(entry.FileName[0] == 0 && (entry.FileFlags & 1u) != 0);
}

bool SelectSprdFiles(const PacHeader& header, const std::vector<PacFileEntry>& entries, SprdSelection& out,
                     std::string& error) {
    out = SprdSelection{};
    const std::size_t count =
        header.FileCount < 0 ? 0 : std::min(entries.size(), static_cast<std::size_t>(header.FileCount));
    int omittable = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const PacFileEntry& e = entries[i];
        std::string id, path;
        if (!ReadEntryText(e.FileId, static_cast<int>(i), id, error) ||
            !ReadEntryText(e.FileName, static_cast<int>(i), path, error))
            return false;
        if (id.size() > 255 || path.size() > 255) {
            error = Format(texts::kPacTextTooLong, static_cast<int>(i));
            return false;
        }
        id = Upper(id);

        app::DlFileInfo info{};
        app::CopyField(info.FileId, id);
        app::CopyField(info.FilePath, path);
        info.FileSize = e.FileSize;
        info.CheckFlag = e.CheckFlag;
        out.files.push_back(info);

        const bool isOmittable = e.OmitFlag == 1;
        const bool chosen = IsChosenForDownload(e);
        out.chosen.push_back(chosen);
        out.omittable.push_back(isOmittable);
        if (isOmittable) ++omittable;
        const bool nv = StartsWith(id, "NV");
        const bool flash = !nv && StartsWith(id, "FLASH");
        if (flash) out.hasFlash = true;
        if (chosen) {
            ++out.selectedCount;
            if (nv)
                out.nvChosen = true;
            else if (flash)
                out.flashChosen = true;
            if (isOmittable) --omittable;
            out.record[id] = {e.CheckFlag, path};
        } else {
            out.record[id] = {e.CheckFlag, std::string()};
            if (e.OmitFlag == 0 && e.CheckFlag == 0) {
                if (!out.missingFileList.empty()) out.missingFileList += ',';
                out.missingFileList += id;
            }
        }
    }
    out.omittableLeft = omittable;
    out.allRequiredChosen = static_cast<int>(count) - out.selectedCount == omittable;
    out.repartitions = header.RepartitionFlag != 0 && (header.RepartitionMode == 0 || header.RepartitionMode == 3);

    if (out.hasFlash && !out.flashChosen) {
        out.verdict = SprdSelection::SELECTION_FAIL_FLASH;
    } else if (!out.nvChosen) {
        out.verdict = SprdSelection::SELECTION_FAIL_NO_NV;
        out.message = texts::kSprdNoNvChosen;
    } else if (header.NvBackupFlag == 0) {
        out.verdict = SprdSelection::SELECTION_FAIL_NO_NV_BACKUP;
        out.message = texts::kSprdNoNvBackup;
    } else if (!out.allRequiredChosen && out.repartitions) {
        out.verdict = SprdSelection::SELECTION_FAIL_REPARTITION;
        out.message = Format(texts::kSprdRepartitionMissing, out.missingFileList.c_str());
    } else if (!out.allRequiredChosen) {
        out.verdict = SprdSelection::SELECTION_WARN_MISSING;
        out.message = Format(texts::kSprdFilesMissing, out.missingFileList.c_str());
    }
    return true;
}

CSprdDownloadConfig::CSprdDownloadConfig(app::Station& station, app::MessageWindow* preparationWindow,
                                         app::TellOperator tell)
    : station_(station),
      window_(preparationWindow),
      tell_(std::move(tell)),
      tempFolder_(CBinPack::SystemTempFolder),
      header_(EmptyPacHeader()) {}

void CSprdDownloadConfig::Housekeeping() {
    PackageHousekeeping housekeeping(station_.clock);
    PackageHousekeeping::DeleteRecordedFolders(extractionFolders_);
    if (const auto temp = tempFolder_ ? tempFolder_() : std::nullopt) housekeeping.DeleteOldTempFolders(*temp);
    housekeeping.DeleteOldImageStoreFiles(station_.ConfigPath("imgstore"));
}

int CSprdDownloadConfig::LoadPackage(const char* packagePath) {
    Housekeeping();
    if (BuildConfiguration(packagePath)) return 1;
    Housekeeping();
    return 0;
}

int CSprdDownloadConfig::BuildConfiguration(const char* packagePath) {
    if (!packagePath) return 0;
    CBinPack pack(tell_, station_.clock, window_);
    pack.SetTempFolderSource(tempFolder_);
    if (!pack.Open(packagePath)) return 0;

    imageFiles_ = station_.ExeDir() + "ImageFiles";
    PackageHousekeeping::EmptyFolder(imageFiles_);
    if (::mkdir(imageFiles_.c_str(), 0777) != 0 && errno != EEXIST) {
        imageFiles_.clear();
        return 0;
    }

    std::vector<PacFileEntry> table;
    const int unpacked = pack.Unpack(imageFiles_.c_str(), &header_, &table);
    if (!pack.GetOutputFolder().empty()) extractionFolders_.push_back(pack.GetOutputFolder());
    {
        app::SprdDownloadParams params = *station_.sprdParams.Get();
        params.ConfigFilePath = pack.GetLastFilePath();
        station_.sprdParams.Set(std::move(params));
    }
    pack.Close();
    if (!unpacked) return 0;

    SprdSelection selection;
    std::string error;
    if (!SelectSprdFiles(header_, table, selection, error)) {
        if (tell_) tell_(error);
        return 0;
    }
    std::string productName;
    ReadField(header_.ProductName, productName);  // normalised and checked by Unpack
    std::vector<PacFileEntry>().swap(table);      // 41 MiB at the most, before the copies below
    {
        app::SprdDownloadParams params = *station_.sprdParams.Get();
        params.files = std::move(selection.files);
        params.SelectedFileCount = selection.selectedCount;
        station_.sprdParams.Set(std::move(params));
    }

    // A warning is read before the selection is recorded, a refusal before the load ends.
    if (!selection.message.empty() && tell_) tell_(selection.message);
    if (!selection.Passed()) return 0;

    {
        app::SprdDownloadParams params = *station_.sprdParams.Get();
        params.ProductName = productName;
        station_.sprdParams.Set(std::move(params));
    }
    const std::string ini = station_.ConfigPath("UpgradeDownload.ini");
    struct stat st;
    if (::stat(ini.c_str(), &st) == 0) {
        const std::string section = SectionText(productName);
        std::vector<platform::ProfileIni::Write> writes;
        for (const auto& [id, value] : selection.record) {
            if (id.find_first_not_of(" \t") == std::string::npos) continue;  // no key to read back
            const std::string text = Format("%d@%s", static_cast<int>(value.first), value.second.c_str());
            writes.push_back({section, KeyText(id, text), text});
        }
        writes.push_back({"Selection", "SelectProduct", productName});
        platform::ProfileIni::WriteMany(ini, writes);
    }
    return 1;
}

}  // namespace quorvel::packages
