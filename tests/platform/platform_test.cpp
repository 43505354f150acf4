#include <gtest/gtest.h>
#include <unistd.h>
#include <sys/wait.h>

#include <cstdlib>

#include "platform/DayLog.h"
#include "platform/ExeDir.h"
#include "platform/InstanceLock.h"
#include "platform/MachineStamp.h"
#include "platform/SystemLanguage.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

using test::TempDir;

TEST(SystemLanguageTest, LocalesMapToWindowsLanguageIds) {
    for (auto [locale, id] : {std::pair{"zh_CN.UTF-8", 2052}, {"en_US.UTF-8", 1033}, {"de_AT@euro", 3079},
                              {"de_LU", 1031}, {"zh_TW", 1028}, {"C", 1033}, {"", 1033}, {"xx_YY", 1033}})
        EXPECT_EQ(LangIdForLocale(locale), id) << locale;
}

TEST(SystemLanguageTest, EnvironmentIsReadAtEveryCall) {
    ::setenv("LC_ALL", "zh_CN.UTF-8", 1);
    EXPECT_EQ(SystemDefaultLangId(), 2052);
    ::setenv("LC_ALL", "", 1);
    ::setenv("LC_MESSAGES", "ja_JP.UTF-8", 1);
    EXPECT_EQ(SystemDefaultLangId(), 1041);
    ::unsetenv("LC_MESSAGES");
    ::unsetenv("LC_ALL");
}

TEST(MachineStampTest, FirstAdapterByIndexWithANonZeroAddress) {
    TempDir dir;
    auto adapter = [&](const char* name, const char* index, const char* address, const char* type) {
        const std::string base = std::string("class/net/") + name + "/";
        dir.Write(base + "ifindex", std::string(index) + "\n");
        dir.Write(base + "address", std::string(address) + "\n");
        dir.Write(base + "type", std::string(type) + "\n");
    };
    SysPaths paths;
    paths.sys = dir.Path();
    EXPECT_EQ(FirstAdapterMac(paths), "");
    adapter("lo", "1", "00:00:00:00:00:00", "772");
    adapter("wlan0", "3", "aa:bb:cc:dd:ee:0f", "1");
    adapter("dummy", "2", "00:00:00:00:00:00", "1");
    adapter("bad", "0", "not-a-mac", "1");
    EXPECT_EQ(FirstAdapterMac(paths), "AA-BB-CC-DD-EE-0F");
    adapter("eth0", "2", "02:42:ac:11:00:02", "1");
    EXPECT_EQ(FirstAdapterMac(paths), "02-42-AC-11-00-02");
}

TEST(InstanceLockTest, SecondHolderIsRefusedAndADeadHolderReleases) {
    TempDir dir;
    const auto path = dir.File("QuorvelTool.lock");
    {
        InstanceLock first(path);
        ASSERT_TRUE(first.Acquired());
        // flock is per open file description, so a second open in this process is refused too.
        InstanceLock second(path);
        EXPECT_FALSE(second.Acquired());
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
