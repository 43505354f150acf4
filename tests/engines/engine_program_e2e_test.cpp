// The whole station with an engine program of an older protocol, and with one that runs.
// (Programs that cannot start: tests/scenarios/engine_program_cannot_run.txt; the same
// phones give the same rows on the engine program as in process: brom_four_rows.txt.)

#include <gtest/gtest.h>

#include <filesystem>

#include "console/ConsoleController.h"
#include "platform/ExeDir.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "support/StationFixture.h"
#include "support/StationProcess.h"
#include "support/TempDir.h"

namespace quorvel::console {
namespace {

// A station folder with an MTK scatter package on a four-socket simulated bench.
void WriteStation(const test::TempDir& dir, const std::string& extra) {
    dir.Write("fw/MT6765_Android_scatter.txt", "scatter\n");
    dir.Write("Config/CommonSetting.ini",
              test::UnboundSettings("CheckSum=0\nLANGUAGE=1033\nFilePath=" + dir.File("fw/MT6765_Android_scatter.txt") +
                                    "\n[BENCH]\nSimulated=1\nHubs=1\nSocketsPerHub=4\n" + extra));
}

// A program that speaks another protocol version refuses Start with its path and the
// reason; one that runs names itself in the About dialog.
TEST(EngineProgramE2e, OldProgramRefusesStartAndAGoodOneIsNamed) {
    const std::string sim = platform::ExeDir() + "../tools/quorvel-sim-engine/quorvel-sim-engine";
    struct Case {
        std::string command;
        const char* reason;  // empty: Start goes ahead
    };
    test::TempDir files;
    files.Write("old.sh", "#!/bin/sh\necho '{\"t\":\"hello\",\"protocol\":2,\"program\":\"old 0.9\"}'\n");
    std::filesystem::permissions(files.File("old.sh"), std::filesystem::perms::owner_all);
    const Case cases[] = {
        {files.File("old.sh") + " --port {port}", "old.sh: speaks protocol version 2, the station speaks 1"},
        {sim, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        test::TempDir dir;
        WriteStation(dir, "[ENGINES]\nMTK=" + c.command + "\n");
        test::StationProcess proc(dir);
        ASSERT_TRUE(proc.Init());
        proc.PressStartStop();
        EXPECT_EQ(proc.station->stationRunning.load(), std::string(c.reason).empty());
        const auto messages = proc.ui.Messages();
        if (std::string(c.reason).empty()) {
            EXPECT_TRUE(messages.empty());
            proc.PressStartStop();
            // The About dialog's versions name the program where the MTK module stands.
            app::VersionInfo info{};
            proc.loop.Call([&] { proc.run->Manager().WorkerAt(0)->FillVersionInfo(&info); });
            EXPECT_EQ(app::FieldText(info.module1Version), "quorvel-sim-engine 1.0");
        } else {
            ASSERT_EQ(messages.size(), 1u);
            EXPECT_NE(messages[0].find("The engine program for MTK cannot run: "), std::string::npos) << messages[0];
            EXPECT_NE(messages[0].find(c.reason), std::string::npos) << messages[0];
        }
    }
}

}  // namespace
}  // namespace quorvel::console
