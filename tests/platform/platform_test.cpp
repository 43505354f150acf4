#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "platform/AtomicFile.h"
#include "platform/DayLog.h"
#include "platform/ExeDir.h"
#include "platform/InstanceLock.h"
#include "platform/MachineStamp.h"
#include "platform/SystemLanguage.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

using test::TempDir;

TEST(SystemLanguageTest, LocalesMapToWindowsLanguageIdsReadAtEveryCall) {
    for (auto [locale, id] : {std::pair{"zh_CN.UTF-8", 2052},
                              {"en_US.UTF-8", 1033},
                              {"de_AT@euro", 3079},
                              {"de_LU", 1031},
                              {"zh_TW", 1028},
                              {"C", 1033},
                              {"", 1033},
                              {"xx_YY", 1033}})
        EXPECT_EQ(LangIdForLocale(locale), id) << locale;
    // The environment is read at every call.
    ::setenv("LC_ALL", "zh_CN.UTF-8", 1);
    EXPECT_EQ(SystemDefaultLangId(), 2052);
    ::setenv("LC_ALL", "", 1);
    ::setenv("LC_MESSAGES", "ja_JP.UTF-8", 1);
    EXPECT_EQ(SystemDefaultLangId(), 1041);
    ::unsetenv("LC_MESSAGES");
    ::unsetenv("LC_ALL");
}

TEST(MachineStampTest, FirstPhysicalAdapterByIndexWithANonZeroAddress) {
    TempDir dir;
    auto adapter = [&](const char* name, const char* index, const char* address, bool physical) {
        const std::string base = std::string("class/net/") + name + "/";
        dir.Write(base + "ifindex", std::string(index) + "\n");
        dir.Write(base + "address", std::string(address) + "\n");
        if (physical) dir.Write(base + "device/vendor", "0x8086\n");
    };
    SysPaths paths;
    paths.sys = dir.Path();
    EXPECT_EQ(FirstAdapterMac(paths), "");
    // Virtual adapters come first by index and never count, whatever their address.
    adapter("lo", "1", "00:00:00:00:00:00", false);
    adapter("ifb0", "2", "7e:11:22:33:44:55", false);
    adapter("docker0", "3", "02:42:ac:11:00:02", false);
    adapter("veth1", "4", "aa:aa:aa:aa:aa:aa", false);
    adapter("dummy", "5", "00:00:00:00:00:00", true);
    adapter("bad", "6", "not-a-mac", true);
    adapter("wlan0", "8", "aa:bb:cc:dd:ee:0f", true);
    EXPECT_EQ(FirstAdapterMac(paths), "AA-BB-CC-DD-EE-0F");
    adapter("eth0", "7", "00:1b:21:0a:0b:0c", true);
    EXPECT_EQ(FirstAdapterMac(paths), "00-1B-21-0A-0B-0C");
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

TEST(AtomicFileTest, StaleTemporariesOfGoneWritersAreRemoved) {
    TempDir dir;
    pid_t gone = ::fork();
    if (gone == 0) ::_exit(0);
    ::waitpid(gone, nullptr, 0);
    const std::string dead = std::to_string(gone), self = std::to_string(::getpid());
    for (const std::string& name :
         std::vector<std::string>{"a.ini.tmp" + dead + ".0", "TestResult.ini.tmp" + dead + ".17", "a.ini.tmp1.0",
                                  "a.ini.tmp" + self + ".3", "a.ini.tmp" + dead, "notes.tmp", "a.ini"})
        dir.Write(name, "x");
    EXPECT_EQ(RemoveStaleTemporaries(dir.Path()), 2);
    std::vector<std::string> left;
    for (const auto& e : std::filesystem::directory_iterator(dir.Path())) left.push_back(e.path().filename());
    std::sort(left.begin(), left.end());
    std::vector<std::string> kept{"a.ini", "a.ini.tmp" + dead, "a.ini.tmp" + self + ".3", "a.ini.tmp1.0", "notes.tmp"};
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(left, kept);
}

TEST(DayLogTest, OneFilePerDayWithCrLfLines) {
    TempDir dir;
    const std::int64_t july28 = 1501243200;  // 2017-07-28 12:00 UTC
    ::setenv("TZ", "UTC", 1);
    AppendDayLog(dir.Path(), july28, "first");
    AppendDayLog(dir.Path(), july28, "second");
    EXPECT_EQ(dir.Read("20170728UILog.txt"), "first\r\nsecond\r\n");
    AppendDayLog(dir.File("missing/"), july28, "dropped");  // no folder: silently dropped
}

TEST(ExeDirTest, FolderKeepsItsTrailingSeparator) {
    EXPECT_EQ(FolderOf("D:\\fw\\MT6580_Android_scatter.txt"), "D:\\fw\\");
    EXPECT_EQ(FolderOf("/opt/fw/a.pac"), "/opt/fw/");
    EXPECT_EQ(FolderOf("a.pac"), "");
    EXPECT_EQ(ExeDir().back(), '/');
}

}  // namespace
}  // namespace quorvel::platform
