#pragma once
// What one flash does, in order: the package's scheme joined with the station's file list
// (only the selected files). Pure functions; any thread.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engines/sprd/Scheme.h"

namespace quorvel::sprd {

// One line of the station's file list: FileId<TAB>FilePath<TAB>FileSize<TAB>CheckFlag.
struct ListedFile {
    std::string id;
    std::string path;
    std::uint64_t size = 0;
    int checkFlag = 0;
    bool Selected() const { return checkFlag != 0 && !path.empty(); }
};

bool ReadFileList(std::string_view text, std::vector<ListedFile>& out, std::string& error);

struct PlanStep {
    enum Kind { ERASE, IMAGE };
    Kind kind = IMAGE;
    std::string id;         // the scheme entry's ID
    std::string partition;  // partition form; empty for the address form
    std::uint32_t address = 0;
    std::uint64_t eraseSize = 0;  // ERASE: 0 the whole partition
    std::string path;             // IMAGE: the file
    std::uint64_t size = 0;       // IMAGE: the file's size on disk
    bool nv = false;              // IMAGE: the NV image (merged with the phone's backup)
    // "system" or "0x80000000": what the operator reads in "Downloading system: ...".
    std::string Target() const;
};

struct Loader {
    std::string path;
    std::uint32_t address = 0;
    std::uint64_t size = 0;
};

struct Plan {
    Loader fdl, fdl2;
    std::vector<PartitionSize> partitions;  // REPARTITION when not empty
    std::vector<PlanStep> steps;            // erase entries and images, in the scheme's order
    std::vector<NvItemRef> nvItems;
    bool keepCalibration = true;     // DownloadType 0
    std::vector<std::string> notes;  // what the log should say about the choices
    std::uint64_t ImageBytes() const;
};

// Joins `scheme` and `files`. `downloadType` 0 keeps calibration and IMEI: NV is merged with
// the phone's backup and erase entries of the NV partition are skipped; 1 writes NV as the
// package has it. Files are looked up on disk here, so a missing one fails before the phone
// is touched.
bool MakePlan(const Scheme& scheme, const std::vector<ListedFile>& files, int downloadType, Plan& out,
              std::string& error);

}  // namespace quorvel::sprd
