#include "app/Station.h"

namespace quorvel::app {

Station::Station(StationOptions options, platform::Clock& clockRef, ConsoleUi& uiRef)
    : clock(clockRef),
      ui(uiRef),
      language(std::move(options.systemLanguage)),
      settingsStore(*this, std::move(options.machineStamp)),
      statistics(*this),
      exeDir_(std::move(options.exeDir)) {
    if (!exeDir_.empty() && exeDir_.back() != '/') exeDir_ += '/';
}

}  // namespace quorvel::app
