#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "platform/ExeDir.h"
#include "platform/ProfileIni.h"
#include "support/TempDir.h"

namespace quorvel::app {
namespace {

using platform::ProfileIni;

// A station killed in the middle of a burst of saves leaves both files complete.
TEST(CrashSafetyTest, KilledWriterLeavesCompleteFiles) {
    const std::string writer = platform::ExeDir() + "burst_writer";
    ASSERT_EQ(::access(writer.c_str(), X_OK), 0) << writer;
    test::TempDir dir;
    dir.Write("Config/CommonSetting.ini", "; operator notes\r\n[COMMON]\r\nMac=00-11-22-33-44-55\r\nCheckSum=0\r\n");
    std::mt19937 random(12345);
    for (int round = 0; round < 15; ++round) {
        pid_t pid = ::fork();
        if (pid == 0) {
            ::execl(writer.c_str(), writer.c_str(), dir.Path().c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ASSERT_GT(pid, 0);
        // Kill it only once it writes (a sanitizer build starts slowly), at a random moment.
        for (int waited = 0; waited < 500 && ::access(dir.File("Config/TestResult.ini").c_str(), F_OK) != 0; ++waited)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::this_thread::sleep_for(std::chrono::milliseconds(5 + random() % 60));
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "writer ended by itself with " << WEXITSTATUS(status);

        const std::string settings = dir.Read("Config/CommonSetting.ini");
        ASSERT_EQ(settings.rfind("; operator notes\r\n[COMMON]\r\nMac=00-11-22-33-44-55\r\nCheckSum=0\r\n", 0), 0u);
        for (int n = 0; n < 16; ++n) {
            const std::string key = "Index" + std::to_string(n);
            // Before its first save only the counters file exists.
            ASSERT_TRUE(ProfileIni::Lookup(settings, "THREADSTATUS", key).first || round == 0) << key;
            if (ProfileIni::Lookup(settings, "COM", key).first) {
                EXPECT_EQ(ProfileIni::Lookup(settings, "COM", key).second, "Diag (COM" + std::to_string(n + 1) + ")");
            }
        }
        const std::string counters = dir.Read("Config/TestResult.ini");
        const auto total = ProfileIni::ReadIntFrom(counters, "total", "NUM", 0xFFFFFFFF);
        const auto fail = ProfileIni::ReadIntFrom(counters, "fail", "NUM", 0xFFFFFFFF);
        ASSERT_NE(total, 0xFFFFFFFFu) << counters;
        ASSERT_NE(fail, 0xFFFFFFFFu) << counters;
        EXPECT_LE(fail, total);
    }
}

}  // namespace
}  // namespace quorvel::app
