#include "console/AppStartup.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "platform/AtomicFile.h"
#include "platform/ErrnoText.h"
#include "station/Texts.h"

namespace quorvel::app {

namespace {
constexpr char kLockName[] = "QuorvelTool.lock";

std::string Format(const char* format, const std::string& a, int error, const std::string& b = {}) {
    char text[1024];
    std::snprintf(text, sizeof text, format, a.c_str(), platform::ErrnoText(error).c_str(), b.c_str());
    return text;
}
}  // namespace

LockPlaces AppStartup::DefaultLockPlaces(const std::string& exeDir) {
    return {{std::string("/run/lock/") + kLockName, std::string("/tmp/") + kLockName},
            exeDir.empty() ? std::string() : exeDir + "." + kLockName};
}

std::unique_ptr<InstanceLocks> AppStartup::CheckSingleInstance(const LockPlaces& places, const Language& language,
                                                               ConsoleUi& ui) {
    auto locks = std::make_unique<InstanceLocks>();
    const platform::InstanceLock* failed = nullptr;  // the first place that could not be used
    std::vector<std::unique_ptr<platform::InstanceLock>> tried;
    std::vector<std::string> all = places.machine;
    bool machineHeld = false;
    if (!places.folder.empty()) all.push_back(places.folder);
    for (std::size_t i = 0; i < all.size(); ++i) {
        const bool isFolder = i == places.machine.size();
        if (!isFolder && machineHeld) continue;
        auto lock = std::make_unique<platform::InstanceLock>(all[i]);
        switch (lock->Result()) {
            case platform::InstanceLock::Outcome::Held:
                ui.MessageBox(language.ChooseText(texts::kProgramRunning));
                return nullptr;
            case platform::InstanceLock::Outcome::Acquired:
                if (failed && locks->held.empty())
                    ui.MessageBox(Format(texts::kLockFallbackFormat, failed->Path(), failed->Error(), lock->Path()));
                machineHeld = machineHeld || !isFolder;
                locks->held.push_back(std::move(lock));
                break;
            case platform::InstanceLock::Outcome::Failed:
                if (!failed) failed = lock.get();
                tried.push_back(std::move(lock));
                break;
        }
    }
    if (locks->held.empty()) {
        ui.MessageBox(
            Format(texts::kLockFailedFormat, failed ? failed->Path() : std::string(), failed ? failed->Error() : 0));
        return nullptr;
    }
    return locks;
}

void AppStartup::CreateFolders(const std::string& exeDir, ConsoleUi& ui) {
    struct Folder {
        const char* name;
        const char* failure;
    };
    for (const Folder& f :
         {Folder{"Config", texts::kCreateConfigFolderFailed}, Folder{"TestLog", texts::kCreateLogFolderFailed}}) {
        const std::string path = exeDir + f.name + "/";
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0) continue;
        if (::mkdir(path.c_str(), 0755) != 0) {
            ui.MessageBox(f.failure);
            return;
        }
    }
    platform::RemoveStaleTemporaries(exeDir + "Config/");
}

}  // namespace quorvel::app
