#pragma once
// The start of the program before the console: the single-instance check and the
// working folders. Runs on the main thread.

#include <memory>
#include <string>

#include "app/ConsoleUi.h"
#include "app/Language.h"
#include "platform/InstanceLock.h"

namespace quorvel::app {

class AppStartup {
public:
    // Takes the single-instance lock at `lockPath`. On refusal shows "Program is running!"
    // (chosen with the built-in LanguageId 2052) and returns null: nothing else is touched.
    static std::unique_ptr<platform::InstanceLock> CheckSingleInstance(const std::string& lockPath,
                                                                       const Language& language, ConsoleUi& ui);

    // Creates Config/ and then TestLog/ in `exeDir` when missing. A failure shows its
    // message and ends the step (TestLog is then not attempted); start-up goes on.
    static void CreateFolders(const std::string& exeDir, ConsoleUi& ui);
};

}  // namespace quorvel::app
