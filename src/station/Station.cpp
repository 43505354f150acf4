#include "station/Station.h"

namespace quorvel::app {

namespace {
std::string TestLogOf(std::string exeDir) {
    if (!exeDir.empty() && exeDir.back() != '/') exeDir += '/';
    return exeDir + "TestLog";
}
}  // namespace

Station::Station(StationOptions options, platform::Clock& clockRef)
    : clock(clockRef),
      language(std::move(options.systemLanguage)),
      settingsStore(*this, std::move(options.machineStamp)),
      statistics(*this),
      history(TestLogOf(options.exeDir)),  // before exeDir_ takes the text
      exeDir_(std::move(options.exeDir)) {
    if (!exeDir_.empty() && exeDir_.back() != '/') exeDir_ += '/';
}

}  // namespace quorvel::app
