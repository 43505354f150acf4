#include "platform/DayLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "platform/UniqueFd.h"

namespace quorvel::platform {

std::string DayLogPath(const std::string& folderWithSlash, std::int64_t wallSeconds) {
    std::string folder = folderWithSlash;
    if (!folder.empty() && (folder.back() == '/' || folder.back() == '\\')) folder.pop_back();
    std::time_t t = static_cast<std::time_t>(wallSeconds);
    std::tm local{};
    localtime_r(&t, &local);
    char date[48];
    std::snprintf(date, sizeof date, "%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
    return folder + "/" + date + "UILog.txt";
}

void AppendDayLog(const std::string& folderWithSlash, std::int64_t wallSeconds, const std::string& text) {
    const UniqueFd fd(
        ::open(DayLogPath(folderWithSlash, wallSeconds).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!fd) return;
    const std::string line = text + "\r\n";
    [[maybe_unused]] auto n = ::write(fd.get(), line.data(), line.size());
}

}  // namespace quorvel::platform
