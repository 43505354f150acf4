#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "app/AppStartup.h"
#include "support/TempDir.h"
#include "support/Unprivileged.h"

namespace quorvel::app {
namespace {

TEST(StartupTest, SecondInstanceIsRefusedWithTheBuiltInLanguage) {
    test::TempDir dir;
    HeadlessConsoleUi ui;
    Language chinese([] { return std::uint16_t{2052}; });
    Language english([] { return std::uint16_t{1033}; });
    auto first = AppStartup::CheckSingleInstance(dir.File("lock"), chinese, ui);
    ASSERT_TRUE(first);
    EXPECT_FALSE(AppStartup::CheckSingleInstance(dir.File("lock"), chinese, ui));
    EXPECT_FALSE(AppStartup::CheckSingleInstance(dir.File("lock"), english, ui));
    EXPECT_EQ(ui.Messages(), (std::vector<std::string>{"程序已经启动!", "Program is running!"}));
    first.reset();
    EXPECT_TRUE(AppStartup::CheckSingleInstance(dir.File("lock"), english, ui));
}

TEST(StartupTest, FoldersAreCreatedOnceAndKept) {
    test::TempDir dir;
    HeadlessConsoleUi ui;
    AppStartup::CreateFolders(dir.Path(), ui);
    dir.Write("Config/CommonSetting.ini", "[COMMON]\n");
    AppStartup::CreateFolders(dir.Path(), ui);
    EXPECT_TRUE(std::filesystem::is_directory(dir.File("TestLog")));
    EXPECT_EQ(dir.Read("Config/CommonSetting.ini"), "[COMMON]\n");
    EXPECT_TRUE(ui.Messages().empty());
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
