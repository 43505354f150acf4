#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <vector>

#include "platform/AtomicFile.h"
#include "platform/DayLog.h"
#include "platform/ExeDir.h"
#include "platform/InstanceLock.h"
#include "platform/MachineStamp.h"
#include "platform/SystemLanguage.h"
#include "support/Golden.h"
#include "support/TableFile.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

using test::TempDir;

// Locales, the system language, machine stamps, folders, day logs and stale temporaries:
// tests/tables/platform.txt.
TEST(PlatformTable, LocalesStampsAndFolders) {
    TempDir dir;
    SysPaths paths;
    paths.sys = dir.Path();
    const pid_t gone = ::fork();
    if (gone == 0) ::_exit(0);
    ::waitpid(gone, nullptr, 0);
    const test::Scrubs pids{{"$GONE", std::to_string(gone)}, {"$SELF", std::to_string(::getpid())}};
    for (auto row : test::ReadTable("platform.txt")) {
        SCOPED_TRACE(row.where);
        auto& w = row.words;
        for (auto& word : w) word = test::Scrub(word, pids);
        if (w[0] == "locale" && w.size() == 3) {
            EXPECT_EQ(std::to_string(LangIdForLocale(w[1])), w[2]);
        } else if (w[0] == "folder" && w.size() == 3) {
            EXPECT_EQ(FolderOf(w[1]), w[2]);
        } else if (w[0] == "env" && w.size() == 3) {
            w[2] == "-" ? ::unsetenv(w[1].c_str()) : ::setenv(w[1].c_str(), w[2].c_str(), 1);
        } else if (w[0] == "system" && w.size() == 2) {
            EXPECT_EQ(std::to_string(SystemDefaultLangId()), w[1]);
        } else if (w[0] == "log" && w.size() == 4) {
            AppendDayLog(dir.File(w[1]), std::stoll(w[2]), w[3]);
        } else if (w[0] == "logged" && w.size() == 3) {
            EXPECT_EQ(dir.Read(w[1]), w[2]);
        } else if (w[0] == "temporary" && w.size() == 2) {
            dir.Write("tmp/" + w[1], "x");
        } else if (w[0] == "stale" && w.size() >= 2) {
            EXPECT_EQ(std::to_string(RemoveStaleTemporaries(dir.File("tmp"))), w[1]);
            std::set<std::string> left;
            for (const auto& e : std::filesystem::directory_iterator(dir.File("tmp"))) left.insert(e.path().filename());
            EXPECT_EQ(left, std::set<std::string>(w.begin() + 2, w.end()));
        } else if (w[0] == "stamp" && w.size() == 2) {
            EXPECT_EQ(FirstAdapterMac(paths), w[1]);
        } else if (w[0] == "adapter" && w.size() == 5) {
            dir.Write("class/net/" + w[1] + "/ifindex", w[2] + "\n");
            dir.Write("class/net/" + w[1] + "/address", w[3] + "\n");
            if (w[4] == "physical") dir.Write("class/net/" + w[1] + "/device/vendor", "0x8086\n");
        } else {
            ADD_FAILURE() << "not a case";
        }
    }
}

TEST(InstanceLockTest, SecondHolderIsRefusedAndADeadHolderReleases) {
    TempDir dir;
    const auto path = dir.File("QuorvelTool.lock");
    {
        InstanceLock first(path);
        ASSERT_TRUE(first.Acquired());
        // flock is per open file description, so a second open in this process is refused too.
        InstanceLock second(path);
        EXPECT_EQ(second.Result(), InstanceLock::Outcome::Held);
        struct stat st {};
        ::stat(path.c_str(), &st);
        EXPECT_EQ(st.st_mode & 0777, 0666u);  // other users lock the same file
    }
    // A child that dies holding the lock (no destructor runs) must not block the next start.
    pid_t pid = ::fork();
    if (pid == 0) {
        InstanceLock held(path);
        ::_exit(held.Acquired() ? 0 : 1);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_EQ(WEXITSTATUS(status), 0);
    InstanceLock again(path);
    EXPECT_TRUE(again.Acquired());
}

TEST(ExeDirTest, EndsInASeparator) {
    EXPECT_EQ(ExeDir().back(), '/');
}

}  // namespace
}  // namespace quorvel::platform
