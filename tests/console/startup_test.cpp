#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "console/AppStartup.h"
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
    const struct {
        const char* label;
        std::vector<std::string> machine;  // relative to the test folder
        std::string folder;
        bool started;
        std::string message;  // start of the one message shown, empty for none
    } rows[] = {
        {"missing_runtime_folder", {"gone/x.lock", "m.lock"}, "f.lock", true, "Cannot use the lock file "},
        {"foreign_unreadable_file", {"foreign.lock"}, "f.lock", true, "Cannot use the lock file "},
        {"foreign_readable_file", {"stale.lock"}, "f.lock", true, ""},
        {"read_only_station_folder", {"m.lock"}, "ro/f.lock", true, ""},
        {"no_place_at_all", {"gone/x.lock"}, "ro/f.lock", false, "Cannot take the single-instance lock "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        test::TempDir dir;
        ::chmod(dir.Path().c_str(), 0777);
        dir.Write("foreign.lock", "");
        ::chmod(dir.File("foreign.lock").c_str(), 0);
        dir.Write("stale.lock", "");
        ::chmod(dir.File("stale.lock").c_str(), 0644);
        std::filesystem::create_directory(dir.File("ro"));
        ::chmod(dir.File("ro").c_str(), 0555);
        LockPlaces places{{}, dir.File(row.folder)};
        for (const auto& m : row.machine) places.machine.push_back(dir.File(m));
        // As another user than the files' owner, and a second start in the same process.
        const int result = test::RunUnprivileged([&] {
            HeadlessConsoleUi ui;
            Language english([] { return std::uint16_t{1033}; });
            auto locks = AppStartup::CheckSingleInstance(places, english, ui);
            const auto& shown = ui.Messages();
            if (!!locks != row.started || shown.size() != (row.message.empty() ? 0u : 1u)) return 1;
            if (!row.message.empty() && shown[0].rfind(row.message, 0) != 0) return 2;
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
