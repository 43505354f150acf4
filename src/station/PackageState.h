#pragma once
// The chosen package and operation, and what package preparation hands to the
// engines. The selection is written on the station thread while no job runs;
// the preparation results are published whole, so a job never reads them half-written.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engines/EngineRecords.h"
#include "engines/PackageKind.h"
#include "station/Language.h"

namespace quorvel::app {

struct PackageSelection {
    PackageKind kind = PackageKind::None;
    std::string scatterFilePath, firmwareFolder;
    std::string pacFilePath, pacFolder;
    std::string cfgFilePath, cfgFolder;
    std::int32_t downloadType = 1;  // DownloadType
    bool reserveUserData = false;
    bool cfgBackupRestore = false;
    bool verified = false;  // kind 1: passed the checksum preparation
    bool prepared = false;  // kind 2: extracted and configured
    std::string version;    // the package's version as the panel shows it ("SW:..."), or empty

    // The path and folder of the chosen kind; empty for none.
    const std::string& ActivePath() const;
    const std::string& ActiveFolder() const;
};

// The display name of a DownloadType value; empty outside 0..11.
LangText DownloadTypeName(std::int32_t downloadType);

struct SprdDownloadParams {
    int SelectedFileCount = 0;
    std::string ProductName;
    std::vector<DlFileInfo> files;  // one per package entry, in table order
    std::string ConfigFilePath;
};

struct MtkPrepState {
    std::string EfuseXmlPath;
    int EfuseEnabled = 0;
    std::string ChipName;
    int DaVariant = 0;
    std::string DaBrPath;
    std::string DaPlPath;
};

// Holds a value that one thread replaces whole and others read as a snapshot.
template <class T>
class Published {
public:
    Published() : value_(std::make_shared<const T>()) {}
    std::shared_ptr<const T> Get() const {
        std::lock_guard g(mutex_);
        return value_;
    }
    void Set(T value) {
        auto next = std::make_shared<const T>(std::move(value));
        std::lock_guard g(mutex_);
        value_ = std::move(next);
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const T> value_;
};

}  // namespace quorvel::app
