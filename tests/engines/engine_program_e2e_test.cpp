// The whole station on the simulated bench, once on the in-process simulated engines and
// once on quorvel-sim-engine as the engine program ([BENCH] EngineProgram=1): the same
// phones give the same rows and counters, a phone pulled in the middle of its job too.

#include <gtest/gtest.h>

#include <filesystem>

#include "console/ConsoleController.h"
#include "console/StationRig.h"
#include "platform/ExeDir.h"
#include "sim/SimBench.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "support/StationFixture.h"
#include "support/StationProcess.h"
#include "support/TempDir.h"

namespace quorvel::console {
namespace {

struct Outcome {
    std::uint32_t total = 0, fail = 0;
    std::vector<std::string> results;
    std::string pulled;  // the status of the row whose phone was pulled
    bool operator==(const Outcome&) const = default;
};

// A station folder with an MTK scatter package on a four-socket simulated bench.
void WriteStation(const test::TempDir& dir, const std::string& extra) {
    dir.Write("fw/MT6765_Android_scatter.txt", "scatter\n");
    dir.Write("Config/CommonSetting.ini",
              test::UnboundSettings("CheckSum=0\nLANGUAGE=1033\nFilePath=" + dir.File("fw/MT6765_Android_scatter.txt") +
                                    "\n[BENCH]\nSimulated=1\nHubs=1\nSocketsPerHub=4\n" + extra));
}

Outcome RunBench(bool engineProgram) {
    test::TempDir dir;
    WriteStation(dir, std::string("EngineProgram=") + (engineProgram ? "1" : "0") + "\n");

    test::StationProcess proc(dir);
    auto& station = *proc.station;
    auto& rig = *proc.rig;

    Outcome out;
    EXPECT_TRUE(proc.Init());
    proc.PressStartStop();
    for (int socket = 0; socket < 4; ++socket) {
        engine::PhoneProfile p;
        p.durationMs = 800;
        p.sizeBytes = 4u << 20;
        p.speedMBps = 32;
        p.pass = socket != 2;
        if (socket == 3) p.speedMBps = 0.05;  // pulled in the middle of its transfer
        EXPECT_TRUE(rig.Bench()->Plug(socket, sim::PhoneKind::MTK_BROM, p));
        // One at a time, its download-agent port bound too, so each phone takes the slot of
        // its socket's order.
        EXPECT_TRUE(proc.Await([&] {
            const auto b = station.bindings.Get(socket);
            return b.ls == rig.Bench()->LsLocation(socket) && b.hs == rig.Bench()->HsLocation(socket);
        }));
    }
    EXPECT_TRUE(rig.Bench()->Unplug(3));
    EXPECT_TRUE(proc.Await([&] { return station.statistics.Total() == 4; }));
    EXPECT_TRUE(proc.Await([&] {
        for (int i = 0; i < 4; ++i)
            if (station.bindings.State(i) == app::BindState::Busy) return false;
        return true;
    }));
    out.total = station.statistics.Total();
    out.fail = station.statistics.Fail();
    for (int i = 0; i < 4; ++i) out.results.push_back(station.slotList.ResultText(i));
    const std::string pulled = station.slotList.Row(3).progress.text;
    out.pulled = pulled.substr(0, pulled.find('('));  // its status, without the counts
    proc.PressStartStop();
    EXPECT_TRUE(proc.ui.Messages().empty());
    const bool logs = std::filesystem::exists(dir.File("TestLog/engine"));
    EXPECT_EQ(logs, engineProgram);
    return out;
}

TEST(EngineProgramE2e, BenchGivesTheSameRowsOnTheEngineProgram) {
    const Outcome inProcess = RunBench(false);
    const Outcome program = RunBench(true);
    EXPECT_EQ(inProcess.total, 4u);
    EXPECT_EQ(inProcess.fail, 2u);
    EXPECT_TRUE(program == inProcess) << program.pulled << " / " << inProcess.pulled;
}

// A program that cannot run refuses Start with its path and the reason, as a failed
// pre-start check does.
TEST(EngineProgramE2e, BadProgramRefusesStart) {
    const std::string sim = platform::ExeDir() + "../tools/quorvel-sim-engine/quorvel-sim-engine";
    struct Case {
        std::string command;
        const char* reason;  // empty: Start goes ahead
    };
    test::TempDir files;
    files.Write("flasher.sh", "#!/bin/sh\n");  // not executable
    files.Write("old.sh", "#!/bin/sh\necho '{\"t\":\"hello\",\"protocol\":2,\"program\":\"old 0.9\"}'\n");
    std::filesystem::permissions(files.File("old.sh"), std::filesystem::perms::owner_all);
    const Case cases[] = {
        {"/nonexistent/flasher --port {port}", "/nonexistent/flasher: not found"},
        {files.File("flasher.sh"), "flasher.sh: not executable"},
        {files.File("old.sh") + " --port {port}", "old.sh: speaks protocol version 2, the station speaks 1"},
        {"\"unclosed", "command line: a quote is not closed"},
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
