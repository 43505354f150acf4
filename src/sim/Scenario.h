#pragma once
// A bench scenario: what happens on the simulated bench and when, and what must be
// seen. One step a line, "<ms from the start> <action> ...", times never going back:
//
//   # comment
//   #@ engines: sim program udev   (header: the runner plays it on each of these engines;
//                                   udev: on a real-bench device tree, see Scenario)
//   #@ speed: 10                   (header: how much faster than real time it runs)
//   0      set [BENCH] Hubs 2       a setting; it counts from the next start-up
//   0      set package pac          the package: scatter, pac, cfg, none or a path
//   0      press                    the Start/Stop button
//   100    start                    the button, only when the station is stopped
//   100    stop                     the button, only when the station runs
//   200    plug 0 brom              socket 0 gets a phone (brom, preloader, sprd, cfg)
//   200    plug 1 sprd fail step=2 duration=3000 size=64
//   200    plug 2 sprd stay fault=signature@system   (native-sprd, udev: stays connected; the phone's fault)
//   200    plug 3 brom misbehave=crash              (engine programs: crash, garbage, silent,
//                                                    no-result or no-hello instead of the job;
//                                                    late-result: an SPRD first phase's result
//                                                    comes 15 s after its switch)
//   300    await total 2            wait (bench time, 30 s at most) until it holds
//   300    await 5000 slot 1 result ~ PASS          ... at most 5 s; "~": contains
//   300    expect slot 0 com !~ (COM1)              "!~": does not contain
//   9000   expect slot 1 hs socket 0                holds now, or the scenario fails
//   9000   unplug 0
//   0      serial-delay 300         later phones' serial ports appear 300 ms after them
//   9500   restart                  the station closes and starts again from its files
//   9550   menu remove-binding 1    a slot-list menu command: remove-binding ROW, remove-all,
//                                   merge or reset-counts
//   9600   write fw/a_scatter.txt ""    a file of the station folder gets this text (and a
//                                       newline unless empty): a package going bad meanwhile
//   0      auto brom                every socket takes phone after phone of that kind by
//                                   itself (the automatic bench) until the end or a restart
//   15000  end                      the scenario ends here (default: after the last step)
//
// What await and expect look at (their expected text is the rest of the line; a pair
// of surrounding quotes is taken off, so "" is the empty text):
//   slot N result|device|timer|number    the slot's row (the cells' texts); bar: the
//   slot N bar|phase|look                progress bar's text; phase: IDLE, FLASHING, PASS,
//                                        FAIL or INTERRUPTED; look: the device cell's colour
//                                        (black, grey or 0xrrggbb) and icon
//                                        (socket, phone or none)
//   slot N state|hs|ls|com               its binding; the locations of bench socket K
//                                        read "socket K" (HS) and "socket K LS"
//   socket N mode                        the phone in the socket (none, brom, da, ...)
//   total, fail, rows, workers           counters, slot rows, download workers
//   served, results                      phones given a job, results they were given
//   running, idle                        yes/no (idle: no slot busy, no job running)
//   button                               START, STOP or INIT
//   messages                             the message boxes shown, " | " between, or none
//   history                              the job history's lines, "\n" between
//   notice, banner                       the window's notice, the package banner
//   closing                              the slots a close would ask about, or none
//   engines                              the engine versions the About dialog shows:
//                                        "DA <da> | <module 1> | <module 2>"
//   file PATH                            yes/no: it exists in the station folder
//   setting SECTION KEY                  the value CommonSetting.ini holds now ("" if none)
//
// Parsing is pure; running sleeps through the station clock on the caller's thread.

#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "sim/SimBench.h"
#include "sim/SimEngines.h"

namespace quorvel::sim {

struct ScenarioCheck {
    std::vector<std::string> subject;  // "slot", "3", "result"
    bool contains = false;             // "~": the seen text contains the expected one
    bool lacks = false;                // "!~": it does not
    std::string expected;
    platform::Millis timeout = 30000;  // await only
};

struct ScenarioStep {
    enum Action { PRESS, PLUG, UNPLUG, SERIAL_DELAY, END, START, STOP, AWAIT, EXPECT, SET, RESTART, WRITE, MENU, AUTO };
    Action action = PRESS;
    platform::Millis at = 0;
    int socket = -1;
    platform::Millis delay = 0;            // SERIAL_DELAY
    PhoneKind kind = PhoneKind::MTK_BROM;  // PLUG, AUTO
    engine::PhoneProfile profile;
    ScenarioCheck check;              // AWAIT, EXPECT
    std::string section, key, value;  // SET; section "" with key "package"; WRITE: key is the file;
                                      // MENU: key is the item, socket the row
    int line = 0;
};

struct Scenario {
    std::vector<ScenarioStep> steps;
    platform::Millis end = 0;  // time of "end", or of the last step
    // Header lines, for the runner of the scenario files. "#@ engines:": which engines
    // to play it on, each in turn: sim (in process), program (the simulated engine
    // program), native-sprd (the native SPRD engine with simulated phones), udev (the
    // real-bench backend on a device tree shaped like the simulated bench: one 2.0
    // controller, one hub of four sockets; phones as the kernel presents them, SPRD
    // phones on sockets 2 and 3 with a vendor interface and no serial port; jobs on the
    // in-process engines).
    std::vector<std::string> engines{"sim"};
    double speed = 10;  // "#@ speed:": bench time runs this many times faster
};

// Nothing, with the line and reason in `error`, when the text is not a scenario.
std::optional<Scenario> ParseScenario(const std::string& text, std::string* error = nullptr);

// The station a scenario plays against. Called on the scenario's thread only.
class ScenarioHost {
public:
    virtual ~ScenarioHost() = default;
    // Brings the station up unless it is; false, with the reason, when it did not come up.
    virtual bool Up(std::string& why) = 0;
    virtual ScenarioBench* Bench() = 0;  // null when there are no sockets to plug into
    virtual void Press() = 0;            // the Start/Stop button
    // A menu command of the slot list, `row` selected (-1: none).
    virtual void Menu(const std::string& item, int row) = 0;
    virtual bool Running() = 0;
    // What the station shows for a subject, as text.
    virtual std::string Observe(const std::vector<std::string>& subject) = 0;
    // False, with the reason, when it cannot be done.
    virtual bool Set(const std::string& section, const std::string& key, const std::string& value,
                     std::string& why) = 0;
    virtual bool Restart(std::string& why) = 0;
    // `file` is relative to the station folder.
    virtual bool WriteFile(const std::string& file, const std::string& text, std::string& why) = 0;
};

struct ScenarioLog {
    std::vector<std::string> lines;  // what was done, with its time
    int plugged = 0;                 // phones the bench took
    std::string failure;             // "line N: ...": the first step that did not hold
};

// Plays the steps against the host's bench and station, up to the first step that
// fails. A plug or unplug the bench refuses (no such socket, taken, empty) is logged
// and skipped. An await looks again every 20 ms of bench time.
ScenarioLog RunScenario(const Scenario& scenario, platform::Clock& clock, ScenarioHost& host);

}  // namespace quorvel::sim
