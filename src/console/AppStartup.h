#pragma once
// The start of the program before the console: the single-instance check and the
// working folders. Runs on the main thread.

#include <memory>
#include <string>
#include <vector>

#include "console/ConsoleUi.h"
#include "platform/InstanceLock.h"
#include "station/Language.h"

namespace quorvel::app {

// Where the single-instance locks live. One station per PC, whatever its session or
// user: the PC lock is the first usable file of `machine`, in folders every user
// shares. The folder lock, beside the station folder, keeps a second station off
// the same files even when the PC lock had to fall back to another place.
struct LockPlaces {
    std::vector<std::string> machine;
    std::string folder;  // empty: none
};

struct InstanceLocks {
    std::vector<std::unique_ptr<platform::InstanceLock>> held;
};

class AppStartup {
public:
    // /run/lock, then /tmp, and `exeDir`/.QuorvelTool.lock.
    static LockPlaces DefaultLockPlaces(const std::string& exeDir);

    // Takes the locks. Only a lock held by a live station refuses with "Program is
    // running!" (chosen with the built-in LanguageId 2052). A lock file that cannot be
    // used is said once, with the place used instead; when no lock at all can be
    // taken, that is said and start-up is refused. Returns null when refused: nothing
    // else is touched.
    static std::unique_ptr<InstanceLocks> CheckSingleInstance(const LockPlaces& places, const Language& language,
                                                              ConsoleUi& ui);

    // Creates Config/ and then TestLog/ in `exeDir` when missing. A failure shows its
    // message and ends the step (TestLog is then not attempted); start-up goes on.
    // Temporary files that interrupted writes left in Config/ are removed.
    static void CreateFolders(const std::string& exeDir, ConsoleUi& ui);
};

}  // namespace quorvel::app
