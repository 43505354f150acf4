#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "console/AppStartup.h"
#include "support/TableFile.h"
#include "support/TempDir.h"
#include "support/Unprivileged.h"

namespace quorvel::app {
namespace {

TEST(StartupTest, SecondInstanceIsRefusedWithTheBuiltInLanguage) {
    test::TempDir dir;
    HeadlessConsoleUi ui;
    Language chinese([] { return std::uint16_t{2052}; });
    Language english([] { return std::uint16_t{1033}; });
    const LockPlaces places{{dir.File("machine.lock")}, dir.File("folder.lock")};
    auto first = AppStartup::CheckSingleInstance(places, chinese, ui);
    ASSERT_TRUE(first);
    EXPECT_FALSE(AppStartup::CheckSingleInstance(places, chinese, ui));
    // Another station folder on the same PC is refused too.
    EXPECT_FALSE(AppStartup::CheckSingleInstance({places.machine, dir.File("other.lock")}, english, ui));
    EXPECT_EQ(ui.Messages(), (std::vector<std::string>{"程序已经启动!", "Program is running!"}));
    first.reset();
    EXPECT_TRUE(AppStartup::CheckSingleInstance(places, english, ui));
}

// Only a lock held by a live station says "Program is running!"; a lock file that
// cannot be used is said as such and another place takes the lock.
TEST(StartupTest, LockFilesThatCannotBeUsedFallBackOrSaySo) {
    for (const test::TableRow& row : test::ReadTable("instance-lock.txt")) {
        SCOPED_TRACE(row.where);
        ASSERT_EQ(row.words.size(), 4u);
        const bool started = row.words[2] == "yes";
        const std::string& message = row.words[3];
        test::TempDir dir;
        ::chmod(dir.Path().c_str(), 0777);
        dir.Write("foreign.lock", "");
        ::chmod(dir.File("foreign.lock").c_str(), 0);
        dir.Write("stale.lock", "");
        ::chmod(dir.File("stale.lock").c_str(), 0644);
        std::filesystem::create_directory(dir.File("ro"));
        ::chmod(dir.File("ro").c_str(), 0555);
        LockPlaces places{{}, dir.File(row.words[1])};
        std::istringstream machine(row.words[0]);
        for (std::string m; std::getline(machine, m, ',');) places.machine.push_back(dir.File(m));
        // As another user than the files' owner, and a second start in the same process.
        const int result = test::RunUnprivileged([&] {
            HeadlessConsoleUi ui;
            Language english([] { return std::uint16_t{1033}; });
            auto locks = AppStartup::CheckSingleInstance(places, english, ui);
            const auto& shown = ui.Messages();
            if (!!locks != started || shown.size() != (message.empty() ? 0u : 1u)) return 1;
            if (!message.empty() && shown[0].rfind(message, 0) != 0) return 2;
            if (locks && AppStartup::CheckSingleInstance(places, english, ui)) return 3;
            if (locks && ui.Messages().back() != "Program is running!") return 4;
            return 0;
        });
        ::chmod(dir.File("ro").c_str(), 0755);
        EXPECT_EQ(result, 0);
    }
}

// A failed Config folder stops there: TestLog is not attempted, so one message only.
TEST(StartupTest, ConfigThatCannotBeMadeStopsTheFolders) {
    test::TempDir dir;
    ::chmod(dir.Path().c_str(), 0555);
    const int result = test::RunUnprivileged([&] {
        HeadlessConsoleUi ui;
        AppStartup::CreateFolders(dir.Path(), ui);
        return ui.Messages() == std::vector<std::string>{"创建Config文件夹失败！"} ? 0 : 1;
    });
    ::chmod(dir.Path().c_str(), 0755);
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(std::filesystem::exists(dir.File("TestLog")));

    HeadlessConsoleUi ui;
    dir.Write("Config", "a file where the folder should be");
    dir.Write("TestLog", "also a file");
    AppStartup::CreateFolders(dir.Path(), ui);
    EXPECT_EQ(ui.Messages(), (std::vector<std::string>{"创建Config文件夹失败！"}));
}

}  // namespace
}  // namespace quorvel::app
