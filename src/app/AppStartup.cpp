#include "app/AppStartup.h"

#include <sys/stat.h>

#include "app/Texts.h"

namespace quorvel::app {

std::unique_ptr<platform::InstanceLock> AppStartup::CheckSingleInstance(const std::string& lockPath,
                                                                        const Language& language, ConsoleUi& ui) {
    auto lock = std::make_unique<platform::InstanceLock>(lockPath);
    if (lock->Acquired()) return lock;
    ui.MessageBox(language.ChooseText(texts::kProgramRunning));
    return nullptr;
}

void AppStartup::CreateFolders(const std::string& exeDir, ConsoleUi& ui) {
    struct Folder {
        const char* name;
        const char* failure;
    };
    for (const Folder& f : {Folder{"Config", texts::kCreateConfigFolderFailed},
                            Folder{"TestLog", texts::kCreateLogFolderFailed}}) {
        const std::string path = exeDir + f.name + "/";
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0) continue;
        if (::mkdir(path.c_str(), 0755) != 0) {
            ui.MessageBox(f.failure);
            return;
        }
    }
}

}  // namespace quorvel::app
