#pragma once
// The process-wide station state, once: settings, binding table, slot tables,
// package selection, preparation results, the view models and the two stores.
// Passed by reference to every part that needs it. See each member for its rules.

#include <atomic>
#include <string>

#include "history/JobHistory.h"
#include "platform/Clock.h"
#include "station/BindingTable.h"
#include "station/ConsoleView.h"
#include "station/Language.h"
#include "station/PackageState.h"
#include "station/Settings.h"
#include "station/SettingsStore.h"
#include "station/SlotListModel.h"
#include "station/StatisticsStore.h"

namespace quorvel::app {

struct StationOptions {
    std::string exeDir;                              // station folder, with a trailing '/'
    Language::SystemIdSource systemLanguage;         // default: the locale
    SettingsStore::MachineStampSource machineStamp;  // default: the first adapter's MAC
};

class Station {
public:
    Station(StationOptions options, platform::Clock& clock);
    Station(const Station&) = delete;
    Station& operator=(const Station&) = delete;

    const std::string& ExeDir() const { return exeDir_; }
    // ExeDir + "Config/" + file.
    std::string ConfigPath(const std::string& file) const { return exeDir_ + "Config/" + file; }

    platform::Clock& clock;
    Language language;
    std::atomic<bool> restartRequired{false};

    Settings settings;  // written at start-up only
    BindingTable bindings;
    SlotTables slots;
    PackageSelection package;  // station thread only, while no job runs
    Published<SprdDownloadParams> sprdParams;
    Published<MtkPrepState> mtkPrep;
    std::atomic<double> validatedMegabytes{0.0};
    std::atomic<bool> stationRunning{false};  // written by the station thread only

    ConsoleView view;
    SlotListModel slotList;

    SettingsStore settingsStore;
    StatisticsStore statistics;
    JobHistory history;  // TestLog/<yyyymmdd>.jsonl; any worker thread

private:
    std::string exeDir_;
};

}  // namespace quorvel::app
