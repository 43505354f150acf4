// quorvel-bench: runs the whole station headless on a station folder against a
// bench scenario and prints what happened: counters, per-slot results, the binding
// table, the message boxes shown, and the timings. The station writes into that
// folder as it always does (counters, bindings, history).

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "console/AppStartup.h"
#include "console/ConsoleController.h"
#include "console/ScenarioStation.h"
#include "console/StationRig.h"
#include "platform/InstanceLock.h"
#include "platform/JsonText.h"
#include "sim/Scenario.h"
#include "station/BindState.h"
#include "station/Station.h"

using namespace quorvel;
using platform::JsonQuote;

namespace {

// Faster than this, a millisecond of the station's own work is seconds of bench time
// and the scenario's timings mean nothing.
constexpr double kMaxSpeed = 1000;

const char* const kHelp =
    R"HELP(quorvel-bench - run the whole station headless on a simulated bench

Usage:
  quorvel-bench STATION_FOLDER SCENARIO [--speed N] [--json]

Runs the station of STATION_FOLDER (its Config/CommonSetting.ini must select the
simulated bench, [BENCH] Simulated=1) against the bench scenario SCENARIO and prints
the counters, the slot rows, the bindings, the message boxes shown, the phones plugged,
served and given a result, and the time taken.

The station works in STATION_FOLDER as it always does: it adds the jobs to the pass
and fail counters (Config/TestResult.ini) and the history (TestLog/), saves the
bindings into Config/CommonSetting.ini and extracts PAC packages into ImageFiles/.
Run it on a copy of a station folder whose counters and history matter. It refuses
a folder in which a station is running.

Options:
  --speed N  simulated time runs N times faster than real time, 0 < N <= 1000 (default:
             the scenario's "#@ speed:" line, or 10)
  --json     the report as one JSON object
  --help     this text

The scenario may check what it sees (await, expect): the first check that does not
hold ends it, and its line, what was expected and what was seen go to stderr.

Exit status:
  0  the scenario ran and its checks held (without checks: at least one job gave a result)
  1  the station did not start, the scenario could not be read, a check did not hold,
     or (without checks) no job gave a result
  2  the command line was not understood
)HELP";

int Usage(const std::string& why) {
    std::fprintf(stderr, "quorvel-bench: %s (quorvel-bench --help tells more)\n", why.c_str());
    return 2;
}

// A finite number in (0, kMaxSpeed], written whole.
bool ParseSpeed(const char* text, double& speed) {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || errno != 0 || !std::isfinite(v) || v <= 0 || v > kMaxSpeed) return false;
    speed = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string folder, scenarioPath;
    double speed = 0;  // the scenario's own unless given
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--speed") {
            if (i + 1 >= argc || !ParseSpeed(argv[++i], speed))
                return Usage("--speed wants a number above 0 and at most 1000");
        } else if (a.size() > 1 && a[0] == '-') {
            return Usage("unknown option " + a);
        } else if (folder.empty()) {
            folder = a;
        } else if (scenarioPath.empty()) {
            scenarioPath = a;
        } else {
            return Usage("one station folder and one scenario only");
        }
    }
    if (folder.empty() || scenarioPath.empty()) return Usage("a station folder and a scenario are needed");
    // The console makes the package's folder the current one: relative paths would
    // then point elsewhere.
    {
        std::error_code ec;
        const auto absolute = std::filesystem::absolute(folder, ec);
        if (ec) {
            std::fprintf(stderr, "quorvel-bench: %s: %s\n", folder.c_str(), ec.message().c_str());
            return 1;
        }
        folder = absolute.lexically_normal().string();
        scenarioPath = std::filesystem::absolute(scenarioPath, ec).string();
    }
    if (folder.back() != '/') folder += '/';

    std::ifstream file(scenarioPath, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "quorvel-bench: cannot read %s\n", scenarioPath.c_str());
        return 1;
    }
    std::stringstream text;
    text << file.rdbuf();
    std::string error;
    const auto scenario = sim::ParseScenario(text.str(), &error);
    if (!scenario) {
        std::fprintf(stderr, "quorvel-bench: %s: %s\n", scenarioPath.c_str(), error.c_str());
        return 1;
    }

    // The station folder's own lock: a station running there would count these jobs
    // twice over and the bench would write under its feet.
    const platform::InstanceLock folderLock(folder + ".QuorvelTool.lock");
    if (folderLock.Result() == platform::InstanceLock::Outcome::Held) {
        std::fprintf(stderr, "quorvel-bench: a station is running on %s\n", folder.c_str());
        return 1;
    }

    if (speed == 0) speed = scenario->speed;
    platform::ScaledClock clock(speed);
    console::ScenarioStation bench(clock, [&] {
        app::StationOptions options;
        options.exeDir = folder;
        return options;
    });
    const auto realStart = std::chrono::steady_clock::now();
    const platform::Millis virtualStart = clock.Now();
    const sim::ScenarioLog log = sim::RunScenario(*scenario, clock, bench);
    int rc = 0;
    if (!log.failure.empty()) {
        std::fprintf(stderr, "quorvel-bench: %s: %s\n", scenarioPath.c_str(), log.failure.c_str());
        rc = 1;
    }
    const platform::Millis virtualMs = clock.Now() - virtualStart;
    const auto realMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - realStart).count();
    // The station's own share, its engine programs and simulated phones left out.
    rusage self{};
    ::getrusage(RUSAGE_SELF, &self);
    const long long cpuMs =
        (self.ru_utime.tv_sec + self.ru_stime.tv_sec) * 1000LL + (self.ru_utime.tv_usec + self.ru_stime.tv_usec) / 1000;
    const long long maxRssKiB = self.ru_maxrss;

    // The report, taken on the station thread so no handler changes it meanwhile.
    std::string report;
    engine::SimPhoneRegistry::Tally tally;
    bench.Read([&](console::ScenarioStation::Process& p) {
        const app::Station& station = p.station;
        const app::HeadlessConsoleUi& ui = p.ui;
        tally = p.rig.Phones().Results();
        const auto& slots = station.slotList;
        char line[1024];
        if (json) {
            report += "{\"total\":" + std::to_string(station.statistics.Total()) +
                      ",\"fail\":" + std::to_string(station.statistics.Fail()) + ",\"slots\":[";
            for (int r = 0; r < slots.RowCount(); ++r) {
                if (r) report += ",";
                report += "{\"row\":" + JsonQuote(slots.CellText(r, app::COL_NUMBER)) +
                          ",\"device\":" + JsonQuote(slots.CellText(r, app::COL_DEVICE)) +
                          ",\"timer\":" + JsonQuote(slots.CellText(r, app::COL_TIMER)) +
                          ",\"result\":" + JsonQuote(slots.ResultText(r)) + "}";
            }
            report += "],\"bindings\":[";
            for (int i = 0; i < app::kSlotCount; ++i) {
                const auto e = station.bindings.Get(i);
                if (i) report += ",";
                report += "{\"hs\":" + JsonQuote(e.hs) + ",\"ls\":" + JsonQuote(e.ls) + ",\"com\":" + JsonQuote(e.com) +
                          ",\"state\":" + JsonQuote(app::BindStateName(e.state)) + "}";
            }
            report += "],\"messages\":[";
            const auto messages = ui.Messages();
            for (std::size_t i = 0; i < messages.size(); ++i) report += (i ? "," : "") + JsonQuote(messages[i]);
            report += "],\"steps\":[";
            for (std::size_t i = 0; i < log.lines.size(); ++i) report += (i ? "," : "") + JsonQuote(log.lines[i]);
            report += "],\"plugged\":" + std::to_string(log.plugged) + ",\"served\":" + std::to_string(tally.phones) +
                      ",\"results\":" + std::to_string(tally.results) +
                      ",\"mostForOnePhone\":" + std::to_string(tally.mostForOnePhone);
            report += ",\"virtualMs\":" + std::to_string(virtualMs) + ",\"realMs\":" + std::to_string(realMs) +
                      ",\"cpuMs\":" + std::to_string(cpuMs) + ",\"maxRssKiB\":" + std::to_string(maxRssKiB) + "}\n";
            return;
        }
        std::snprintf(line, sizeof line, "counters: total %u, fail %u\n", station.statistics.Total(),
                      station.statistics.Fail());
        report += line;
        report += "slots:\n";
        for (int r = 0; r < slots.RowCount(); ++r) {
            std::snprintf(line, sizeof line, "  %s  %-40s  %-8s  %s\n", slots.CellText(r, app::COL_NUMBER).c_str(),
                          slots.CellText(r, app::COL_DEVICE).c_str(), slots.CellText(r, app::COL_TIMER).c_str(),
                          slots.ResultText(r).c_str());
            report += line;
        }
        report += "bindings:\n";
        for (int i = 0; i < app::kSlotCount; ++i) {
            const auto e = station.bindings.Get(i);
            if (e.hs == app::kUnbound && e.ls == app::kUnbound && e.state == app::BindState::Idle) continue;
            std::snprintf(line, sizeof line, "  Index%-2d HS %-14s LS %-14s %-12s %s\n", i, e.hs.c_str(), e.ls.c_str(),
                          e.com.c_str(), app::BindStateName(e.state));
            report += line;
        }
        report += "message boxes:\n";
        for (const auto& m : ui.Messages()) report += "  " + m + "\n";
        std::snprintf(line, sizeof line, "phones: plugged %d, served %llu, results %llu, at most %llu for one phone\n",
                      log.plugged, static_cast<unsigned long long>(tally.phones),
                      static_cast<unsigned long long>(tally.results),
                      static_cast<unsigned long long>(tally.mostForOnePhone));
        report += line;
        report += "steps:\n";
        for (const auto& s : log.lines) report += "  " + s + "\n";
        std::snprintf(line, sizeof line, "time: %lld ms simulated, %lld ms real (speed %.3g)\n",
                      static_cast<long long>(virtualMs), static_cast<long long>(realMs), speed);
        report += line;
        std::snprintf(line, sizeof line, "station: %lld ms CPU, at most %lld KiB resident\n", cpuMs, maxRssKiB);
        report += line;
    });
    std::fputs(report.c_str(), stdout);

    // A scenario that checks what happened says whether it passed; one that only plays
    // a bench has passed when a job gave a result.
    const bool checks = std::any_of(scenario->steps.begin(), scenario->steps.end(), [](const sim::ScenarioStep& s) {
        return s.action == sim::ScenarioStep::AWAIT || s.action == sim::ScenarioStep::EXPECT;
    });
    if (rc == 0 && !checks && tally.results == 0) {
        std::fprintf(stderr, "quorvel-bench: no job gave a result\n");
        rc = 1;
    }
    return rc;
}
