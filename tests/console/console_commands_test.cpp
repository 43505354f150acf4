#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "console/ConsoleController.h"
#include "present/AboutDialogLogic.h"
#include "present/SettingsDialogLogic.h"
#include "station/Messages.h"
#include "support/StationFixture.h"

namespace quorvel::console {
namespace {

using namespace app;

class ConsoleCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        f.WriteSettings("[COMMON]\nMac=00-11-22-33-44-55\nLANGUAGE=2052\n");
        ASSERT_TRUE(controller.OnInitDialog());
        f.ui.Clear();
    }
    test::StationFixture f{1033};
    app::StationLoop loop{f.clock};
    ConsoleController controller{*f.station, loop, f.ui};
};

TEST_F(ConsoleCommandsTest, OnlyChangingTheLanguageAsksForARestartAndSavesIt) {
    f.ui.QueueAboutAnswer([](AboutDialogLogic& d) { d.Confirm(AboutDialogLogic::AUTO); });
    controller.HandleMessage(Command{CommandId::HELP});
    EXPECT_TRUE(f.ui.Messages().empty());
    EXPECT_FALSE(f.station->view.Snapshot().closeRequested);

    f.ui.QueueAboutAnswer([](AboutDialogLogic& d) { d.Confirm(AboutDialogLogic::ENGLISH); });
    controller.HandleMessage(Command{CommandId::HELP});
    EXPECT_EQ(f.ui.Messages(), (std::vector<std::string>{"Please Reboot the Tool..."}));
    const auto view = f.station->view.Snapshot();
    EXPECT_TRUE(view.closeRequested);
    EXPECT_TRUE(view.hidden);
    EXPECT_NE(f.ReadSettings().find("LANGUAGE=1033"), std::string::npos);
}

TEST_F(ConsoleCommandsTest, SettingsOkShowsTheNewOperationAndBackground) {
    f.dir.Write("fw/MT_scatter.txt", "x");
    const std::string path = f.dir.File("fw/MT_scatter.txt");
    f.ui.QueueSettingsAnswer([&](SettingsDialogLogic& d) {
        d.Load(path);
        d.Select(3);
        std::thread mover([&] {
            f.clock.AwaitWaiters(1);
            f.clock.AdvanceToNextDeadline();
        });
        const bool ok = d.Ok();
        mover.join();
        return ok;
    });
    controller.HandleMessage(Command{CommandId::SETTINGS});
    EXPECT_EQ(f.station->package.downloadType, 8);
    EXPECT_EQ(f.station->view.Pane(3), "Download Only(not format)");
    EXPECT_EQ(f.station->view.Snapshot().backgroundImage, f.dir.Path() + "res/BRINDLE_USERDATA_E.bmp");
}

TEST_F(ConsoleCommandsTest, HelpIsVoidWhileRunning) {
    f.station->stationRunning = true;
    f.ui.QueueAboutAnswer([](AboutDialogLogic& d) { d.Confirm(AboutDialogLogic::ENGLISH); });
    controller.HandleMessage(Command{CommandId::HELP});
    EXPECT_EQ(f.station->language.LanguageId(), 2052u);
}

TEST(ConsoleStartupTest, ChosenPackageIsShownAndItsFolderBecomesCurrent) {
    test::StationFixture f{1033};
    f.dir.Write("fw/MT6765.cfg", "x");
    f.WriteSettings("[COMMON]\nMac=00-11-22-33-44-55\nFilePath=" + f.dir.File("fw/MT6765.cfg") + "\n");
    app::StationLoop loop{f.clock};
    ConsoleController controller{*f.station, loop, f.ui};
    const auto before = std::filesystem::current_path();
    ASSERT_TRUE(controller.OnInitDialog());
    EXPECT_EQ(std::filesystem::current_path().string() + "/", f.dir.File("fw/"));
    std::filesystem::current_path(before);
    EXPECT_EQ(f.station->view.Text(app::IDC_PATH_BANNER), f.dir.File("fw/MT6765.cfg"));
    EXPECT_EQ(f.station->view.Snapshot().controls[app::IDC_PATH_BANNER].fontFace, "Arial");
    EXPECT_TRUE(f.ui.Messages().empty());
}

TEST(ConsoleStartupTest, MissingSettingsFileIsNamedThenTheConsoleCloses) {
    test::StationFixture f{1033};
    app::StationLoop loop{f.clock};
    ConsoleController controller{*f.station, loop, f.ui};
    EXPECT_FALSE(controller.OnInitDialog());
    EXPECT_EQ(f.ui.Messages(),
              (std::vector<std::string>{"the config file path is " + f.SettingsFile() + ",The last error code: 2",
                                        "Failed to read configuration file!"}));
    EXPECT_TRUE(f.station->view.Snapshot().closeRequested);
}

}  // namespace
}  // namespace quorvel::console
