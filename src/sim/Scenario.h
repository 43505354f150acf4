#pragma once
// A bench scenario: what happens on the simulated bench and when. One step a line,
// "<ms from the start> <action> ...", times never going back:
//
//   # comment
//   0      press                    the Start/Stop button
//   100    start                    the button, only when the station is stopped
//   100    stop                     the button, only when the station runs
//   200    plug 0 brom              socket 0 gets a phone (brom, preloader, sprd, cfg)
//   200    plug 1 sprd fail step=2 duration=3000 size=64
//   200    plug 2 sprd stay fault=signature@system   (NativeSprd: stays connected; the phone's fault)
//   9000   unplug 0
//   0      serial-delay 300         later phones' serial ports appear 300 ms after them
//   15000  end                      the scenario ends here (default: after the last step)
//
// Parsing is pure; running sleeps through the station clock on the caller's thread.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sim/SimEngines.h"
#include "platform/Clock.h"
#include "station/Messages.h"
#include "sim/SimBench.h"

namespace quorvel::sim {

struct ScenarioStep {
    enum Action { PRESS, PLUG, UNPLUG, SERIAL_DELAY, END, START, STOP } action;
    platform::Millis at = 0;
    int socket = -1;
    platform::Millis delay = 0;  // SERIAL_DELAY
    PhoneKind kind = PhoneKind::MTK_BROM;
    engine::PhoneProfile profile;
    int line = 0;
};

struct Scenario {
    std::vector<ScenarioStep> steps;
    platform::Millis end = 0;  // time of "end", or of the last step
};

// Nothing, with the line and reason in `error`, when the text is not a scenario.
std::optional<Scenario> ParseScenario(const std::string& text, std::string* error = nullptr);

struct ScenarioLog {
    std::vector<std::string> lines;  // what was done, with its time
    int plugged = 0;                 // phones the bench took
};

// Plays the steps against the bench; presses go to the console as Start/Stop commands.
// A plug or unplug the bench refuses (no such socket, taken, empty) is logged and skipped.
// `running` tells "start" and "stop" whether the station runs; without it they press.
ScenarioLog RunScenario(const Scenario& scenario, platform::Clock& clock, SimBench& bench,
                        app::MessageWindow& console, const std::function<bool()>& running = {});

}  // namespace quorvel::sim
