#include "sim/Scenario.h"

#include "sim/AutoBench.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

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
    if (key == "misbehave") {
        p.misbehave = word.substr(eq + 1);
        for (const char* mode : {"crash", "garbage", "silent", "no-result", "no-hello", "late-result"})
            if (p.misbehave == mode) return true;
        return false;
    }
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

const char* const kSlotFields[] = {"result", "device", "timer", "number", "bar", "phase",
                                   "look",   "state",  "hs",    "ls",     "com"};
const char* const kPlainSubjects[] = {"total",   "fail",    "rows",   "workers", "served",
                                      "results", "running", "idle",   "button",  "messages",
                                      "history", "notice",  "banner", "closing", "engines"};

template <std::size_t N>
bool OneOf(const std::string& word, const char* const (&list)[N]) {
    for (const char* x : list)
        if (word == x) return true;
    return false;
}

// "[TIMEOUT] SUBJECT [~] EXPECTED..." of an await or expect, from w[first].
bool ParseCheck(const std::vector<std::string>& w, std::size_t first, bool await, ScenarioCheck& c, std::string& why) {
    std::size_t i = first;
    long long timeout = 0;
    if (await && i < w.size() && Number(w[i], 1000LL * 3600 * 24, timeout)) {
        c.timeout = timeout;
        ++i;
    }
    if (i >= w.size()) return why = "nothing to look at", false;
    if (w[i] == "slot" || w[i] == "socket") {
        long long n = 0;
        if (i + 2 >= w.size() || !Number(w[i + 1], 255, n))
            return why = "\"" + w[i] + "\" wants a number and a field", false;
        if (w[i] == "slot" ? !OneOf(w[i + 2], kSlotFields) : w[i + 2] != "mode")
            return why = "unknown field \"" + w[i + 2] + "\"", false;
        c.subject.assign(w.begin() + static_cast<long>(i), w.begin() + static_cast<long>(i) + 3);
        i += 3;
    } else if (w[i] == "file") {
        if (i + 1 >= w.size() || w[i + 1].front() == '/' || w[i + 1].find("..") != std::string::npos)
            return why = "\"file\" wants a path inside the station folder", false;
        c.subject = {w[i], w[i + 1]};
        i += 2;
    } else if (w[i] == "setting") {
        if (i + 2 >= w.size()) return why = "\"setting\" wants a section and a key", false;
        c.subject.assign(w.begin() + static_cast<long>(i), w.begin() + static_cast<long>(i) + 3);
        i += 3;
    } else if (OneOf(w[i], kPlainSubjects)) {
        c.subject = {w[i]};
        ++i;
    } else {
        return why = "unknown subject \"" + w[i] + "\"", false;
    }
    if (i < w.size() && (w[i] == "~" || w[i] == "!~")) {
        (w[i] == "~" ? c.contains : c.lacks) = true;
        ++i;
    }
    for (; i < w.size(); ++i) c.expected += (c.expected.empty() ? "" : " ") + w[i];
    if (c.expected.size() >= 2 && c.expected.front() == '"' && c.expected.back() == '"')
        c.expected = c.expected.substr(1, c.expected.size() - 2);
    else if (c.expected.empty() && (c.subject[0] == "running" || c.subject[0] == "idle" || c.subject[0] == "file"))
        c.expected = "yes";
    return true;
}

// "#@ engines: sim program native-sprd udev" or "#@ speed: 5"
bool ParseHeader(const std::string& raw, Scenario& s, std::string& why) {
    std::istringstream words(raw.substr(2));
    std::string w;
    words >> w;
    if (w == "speed:") {
        long long speed = 0;
        if (!(words >> w) || !Number(w, 1000, speed) || speed == 0 || (words >> w))
            return why = "a speed from 1 to 1000", false;
        s.speed = static_cast<double>(speed);
        return true;
    }
    if (w != "engines:") return why = "a header line is \"#@ engines: ...\" or \"#@ speed: N\"", false;
    s.engines.clear();
    while (words >> w) {
        if (w != "sim" && w != "program" && w != "native-sprd" && w != "udev")
            return why = "unknown engines \"" + w + "\"", false;
        s.engines.push_back(w);
    }
    if (s.engines.empty()) return why = "no engines named", false;
    return true;
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
        if (raw.rfind("#@", 0) == 0) {
            std::string why;
            if (!ParseHeader(raw, s, why)) return Fail(error, line, why), std::nullopt;
            continue;
        }
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
        } else if (action == "write" && w.size() >= 3 && w[2].front() != '/' && w[2].find("..") == std::string::npos) {
            step.action = ScenarioStep::WRITE;
            step.key = w[2];
            for (std::size_t i = 3; i < w.size(); ++i) step.value += (i > 3 ? " " : "") + w[i];
            if (step.value.size() >= 2 && step.value.front() == '"' && step.value.back() == '"')
                step.value = step.value.substr(1, step.value.size() - 2);
            if (!step.value.empty()) step.value += '\n';
        } else if (action == "menu" && w.size() == 4 && w[2] == "remove-binding" && Number(w[3], 255, socket)) {
            step.action = ScenarioStep::MENU;
            step.key = w[2];
            step.socket = static_cast<int>(socket);
        } else if (action == "menu" && w.size() == 3 &&
                   (w[2] == "remove-all" || w[2] == "merge" || w[2] == "reset-counts")) {
            step.action = ScenarioStep::MENU;
            step.key = w[2];
        } else if (action == "auto" && w.size() == 3) {
            step.action = ScenarioStep::AUTO;
            const auto kind = PhoneKindOf(w[2]);
            if (!kind) return Fail(error, line, "unknown phone \"" + w[2] + "\""), std::nullopt;
            step.kind = *kind;
        } else if (action == "restart" && w.size() == 2) {
            step.action = ScenarioStep::RESTART;
        } else if (action == "await" || action == "expect") {
            step.action = action == "await" ? ScenarioStep::AWAIT : ScenarioStep::EXPECT;
            std::string why;
            if (!ParseCheck(w, 2, step.action == ScenarioStep::AWAIT, step.check, why))
                return Fail(error, line, why), std::nullopt;
        } else if (action == "set" && w.size() >= 4 && w[2].size() > 2 && w[2].front() == '[' && w[2].back() == ']') {
            step.action = ScenarioStep::SET;
            step.section = w[2].substr(1, w[2].size() - 2);
            step.key = w[3];
            for (std::size_t i = 4; i < w.size(); ++i) step.value += (i > 4 ? " " : "") + w[i];
        } else if (action == "set" && w.size() == 4 && w[2] == "package") {
            step.action = ScenarioStep::SET;
            step.key = "package";
            step.value = w[3];
        } else {
            return Fail(error, line, "not a step: \"" + action + "\""), std::nullopt;
        }
        s.steps.push_back(step);
    }
    s.end = s.steps.empty() ? 0 : s.steps.back().at;
    return s;
}

namespace {

std::string Quoted(const std::string& text) {
    constexpr std::size_t kMost = 600;
    return "\"" + (text.size() > kMost ? text.substr(0, kMost) + "..." : text) + "\"";
}

std::string Joined(const std::vector<std::string>& words) {
    std::string out;
    for (const auto& w : words) out += (out.empty() ? "" : " ") + w;
    return out;
}

bool Holds(const ScenarioCheck& c, const std::string& seen) {
    if (c.contains || c.lacks) return (seen.find(c.expected) != std::string::npos) == c.contains;
    return seen == c.expected;
}

}  // namespace

ScenarioLog RunScenario(const Scenario& scenario, platform::Clock& clock, ScenarioHost& host) {
    ScenarioLog log;
    const platform::Millis start = clock.Now();
    auto note = [&](const ScenarioStep& st, const std::string& what) {
        log.lines.push_back(std::to_string(st.at) + " " + what);
    };
    auto fail = [&](const ScenarioStep& st, const std::string& why) {
        log.failure = "line " + std::to_string(st.line) + ": " + why;
        note(st, "failed: " + why);
    };
    std::unique_ptr<AutoBench> automatic;  // goes before the bench it plugs into
    for (const ScenarioStep& st : scenario.steps) {
        // Steps whose time an await overran follow at once.
        const platform::Millis wait = start + st.at - clock.Now();
        if (wait > 0) clock.Sleep(wait);
        // Settings come before the start-up they are for.
        std::string why;
        if (st.action != ScenarioStep::SET && st.action != ScenarioStep::END && !host.Up(why)) {
            fail(st, "the station did not start: " + why);
            return log;
        }
        const bool onBench = st.action == ScenarioStep::PLUG || st.action == ScenarioStep::UNPLUG ||
                             st.action == ScenarioStep::SERIAL_DELAY || st.action == ScenarioStep::AUTO;
        ScenarioBench* bench = onBench ? host.Bench() : nullptr;
        if (onBench && !bench) {
            fail(st, "no simulated bench ([BENCH] Simulated=1)");
            return log;
        }
        // The automatic bench watches the simulated engines' hold on each phone.
        auto* simBench = dynamic_cast<SimBench*>(bench);
        if (st.action == ScenarioStep::AUTO && !simBench) {
            fail(st, "auto needs the simulated bench");
            return log;
        }
        switch (st.action) {
            case ScenarioStep::PRESS:
                host.Press();
                note(st, "press");
                break;
            case ScenarioStep::START:
            case ScenarioStep::STOP:
                if (host.Running() == (st.action == ScenarioStep::START)) {
                    note(st, st.action == ScenarioStep::START ? "start: runs already" : "stop: stopped already");
                    break;
                }
                host.Press();
                note(st, st.action == ScenarioStep::START ? "start" : "stop");
                break;
            case ScenarioStep::PLUG: {
                const bool taken = bench->Plug(st.socket, st.kind, st.profile);
                log.plugged += taken ? 1 : 0;
                note(st, (taken ? "plug " : "plug refused ") + std::to_string(st.socket));
                break;
            }
            case ScenarioStep::UNPLUG:
                note(st, (bench->Unplug(st.socket) ? "unplug " : "unplug refused ") + std::to_string(st.socket));
                break;
            case ScenarioStep::SERIAL_DELAY:
                bench->SetSerialDelay(st.delay);
                note(st, "serial-delay " + std::to_string(st.delay));
                break;
            case ScenarioStep::AWAIT:
            case ScenarioStep::EXPECT: {
                const ScenarioCheck& c = st.check;
                const std::string what = Joined(c.subject) +
                                         (c.contains ? " ~ "
                                          : c.lacks  ? " !~ "
                                                     : " ") +
                                         Quoted(c.expected);
                const platform::Millis until = clock.Now() + c.timeout;
                std::string seen = host.Observe(c.subject);
                while (st.action == ScenarioStep::AWAIT && !Holds(c, seen) && clock.Now() < until) {
                    clock.Sleep(20);
                    seen = host.Observe(c.subject);
                }
                if (!Holds(c, seen)) {
                    fail(st,
                         (st.action == ScenarioStep::AWAIT ? "waited " + std::to_string(c.timeout) + " ms for " + what
                                                           : "expected " + what) +
                             ", saw " + Quoted(seen));
                    return log;
                }
                note(st, (st.action == ScenarioStep::AWAIT ? "await " : "expect ") + what + " at " +
                             std::to_string(clock.Now() - start));
                break;
            }
            case ScenarioStep::SET: {
                if (!host.Set(st.section, st.key, st.value, why)) {
                    fail(st, "set " + st.key + ": " + why);
                    return log;
                }
                note(st, "set " + (st.section.empty() ? "" : "[" + st.section + "] ") + st.key + " " + st.value);
                break;
            }
            case ScenarioStep::AUTO:
                automatic.reset();
                automatic = std::make_unique<AutoBench>(*simBench, clock, [kind = st.kind] { return kind; });
                automatic->Start();
                note(st, "auto");
                break;
            case ScenarioStep::RESTART: {
                automatic.reset();
                if (!host.Restart(why)) {
                    fail(st, "restart: " + why);
                    return log;
                }
                note(st, "restart");
                break;
            }
            case ScenarioStep::MENU:
                host.Menu(st.key, st.socket);
                note(st, "menu " + st.key + (st.socket >= 0 ? " " + std::to_string(st.socket) : ""));
                break;
            case ScenarioStep::WRITE: {
                if (!host.WriteFile(st.key, st.value, why)) {
                    fail(st, "write " + st.key + ": " + why);
                    return log;
                }
                note(st, "write " + st.key);
                break;
            }
            case ScenarioStep::END: note(st, "end"); break;
        }
    }
    return log;
}

}  // namespace quorvel::sim
