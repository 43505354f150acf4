#include "sim/Scenario.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "station/Messages.h"

namespace quorvel::sim {

namespace {

bool Number(const std::string& word, long long max, long long& out) {
    if (word.empty() || word.size() > 12) return false;
    for (char c : word)
        if (c < '0' || c > '9') return false;
    out = std::strtoll(word.c_str(), nullptr, 10);
    return out <= max;
}

bool Fail(std::string* error, int line, const std::string& why) {
    if (error) *error = "line " + std::to_string(line) + ": " + why;
    return false;
}

// "key=value" options of a plug step.
bool PlugOption(const std::string& word, engine::PhoneProfile& p) {
    if (word == "pass") return p.pass = true, true;
    if (word == "fail") return p.pass = false, true;
    if (word == "stay") return p.sprdStays = true, true;
    const auto eq = word.find('=');
    if (eq == std::string::npos) return false;
    const std::string key = word.substr(0, eq);
    if (key == "fault") return p.sprdFault = word.substr(eq + 1), !p.sprdFault.empty();
    long long v = 0;
    if (!Number(word.substr(eq + 1), 100000000, v)) return false;
    if (key == "duration") return p.durationMs = v, true;
    if (key == "step") return p.failingStep = static_cast<int>(v), true;
    if (key == "size") return p.sizeBytes = static_cast<std::uint64_t>(v) << 20, true;
    if (key == "speed") return p.speedMBps = static_cast<double>(v), true;
    if (key == "phase1") return p.sprdPhase1Ms = v, true;
    if (key == "switch") return p.switchPort = v != 0, true;
    return false;
}

}  // namespace

std::optional<Scenario> ParseScenario(const std::string& text, std::string* error) {
    Scenario s;
    std::istringstream in(text);
    std::string raw;
    int line = 0;
    bool ended = false;
    while (std::getline(in, raw)) {
        ++line;
        if (const auto hash = raw.find('#'); hash != std::string::npos) raw.erase(hash);
        std::istringstream words(raw);
        std::vector<std::string> w;
        for (std::string x; words >> x;) w.push_back(x);
        if (w.empty()) continue;
        if (ended) return Fail(error, line, "a step after \"end\""), std::nullopt;
        ScenarioStep step;
        step.line = line;
        long long at = 0;
        if (!Number(w[0], 1000LL * 3600 * 24 * 7, at)) return Fail(error, line, "a time in ms first"), std::nullopt;
        step.at = at;
        if (!s.steps.empty() && at < s.steps.back().at) return Fail(error, line, "time goes back"), std::nullopt;
        if (w.size() < 2) return Fail(error, line, "an action after the time"), std::nullopt;
        const std::string& action = w[1];
        long long socket = 0;
        if (action == "press" && w.size() == 2) {
            step.action = ScenarioStep::PRESS;
        } else if (action == "start" && w.size() == 2) {
            step.action = ScenarioStep::START;
        } else if (action == "stop" && w.size() == 2) {
            step.action = ScenarioStep::STOP;
        } else if (action == "end" && w.size() == 2) {
            step.action = ScenarioStep::END;
            ended = true;
        } else if (action == "unplug" && w.size() == 3 && Number(w[2], 255, socket)) {
            step.action = ScenarioStep::UNPLUG;
            step.socket = static_cast<int>(socket);
        } else if (action == "serial-delay" && w.size() == 3 && Number(w[2], 60000LL, socket)) {
            step.action = ScenarioStep::SERIAL_DELAY;
            step.delay = socket;
        } else if (action == "plug" && w.size() >= 4 && Number(w[2], 255, socket)) {
            step.action = ScenarioStep::PLUG;
            step.socket = static_cast<int>(socket);
            const auto kind = PhoneKindOf(w[3]);
            if (!kind) return Fail(error, line, "unknown phone \"" + w[3] + "\""), std::nullopt;
            step.kind = *kind;
            for (std::size_t i = 4; i < w.size(); ++i)
                if (!PlugOption(w[i], step.profile))
                    return Fail(error, line, "unknown option \"" + w[i] + "\""), std::nullopt;
        } else {
            return Fail(error, line, "not a step: \"" + action + "\""), std::nullopt;
        }
        s.steps.push_back(step);
    }
    s.end = s.steps.empty() ? 0 : s.steps.back().at;
    return s;
}

ScenarioLog RunScenario(const Scenario& scenario, platform::Clock& clock, SimBench& bench,
                        app::MessageWindow& console, const std::function<bool()>& running) {
    ScenarioLog log;
    const platform::Millis start = clock.Now();
    auto note = [&](const ScenarioStep& st, const std::string& what) {
        log.lines.push_back(std::to_string(st.at) + " " + what);
    };
    for (const ScenarioStep& st : scenario.steps) {
        const platform::Millis wait = start + st.at - clock.Now();
        if (wait > 0) clock.Sleep(wait);
        switch (st.action) {
            case ScenarioStep::PRESS:
                console.Send(app::Command{app::CommandId::START_STOP});
                note(st, "press");
                break;
            case ScenarioStep::START:
            case ScenarioStep::STOP:
                if (running && running() == (st.action == ScenarioStep::START)) {
                    note(st, st.action == ScenarioStep::START ? "start: runs already" : "stop: stopped already");
                    break;
                }
                console.Send(app::Command{app::CommandId::START_STOP});
                note(st, st.action == ScenarioStep::START ? "start" : "stop");
                break;
            case ScenarioStep::PLUG: {
                const bool taken = bench.Plug(st.socket, st.kind, st.profile);
                log.plugged += taken ? 1 : 0;
                note(st, (taken ? "plug " : "plug refused ") + std::to_string(st.socket));
                break;
            }
            case ScenarioStep::UNPLUG:
                note(st, (bench.Unplug(st.socket) ? "unplug " : "unplug refused ") + std::to_string(st.socket));
                break;
            case ScenarioStep::SERIAL_DELAY:
                bench.SetSerialDelay(st.delay);
                note(st, "serial-delay " + std::to_string(st.delay));
                break;
            case ScenarioStep::END: note(st, "end"); break;
        }
    }
    return log;
}

}  // namespace quorvel::sim
