#pragma once
// Which engine programs a station runs ([ENGINES] of CommonSetting.ini) and how a
// configured command line becomes a program's arguments. Read once, when the first
// worker's engines are made; plain values afterwards. Pure functions, any thread.

#include <map>
#include <string>
#include <vector>

#include "platform/Clock.h"

namespace quorvel::engine {

// After its result, or after SIGTERM, a program has this long to exit before SIGKILL.
inline constexpr platform::Millis kProgramGraceMs = 3000;

struct ProgramSettings {
    std::string mtk, fp, sprd;           // command lines; empty: the in-process engine
    platform::Millis silenceMs = 60000;  // SilenceSeconds
    bool record = false;                 // Record: protocol lines with times into the job log
    bool benchProgram = false;           // [BENCH] EngineProgram: the simulated bench's phones on
                                         // quorvel-sim-engine where no program is named

    // The [ENGINES] keys of the settings file at `iniPath`; absent keys keep the defaults.
    static ProgramSettings Load(const std::string& iniPath);
};

// Splits a command line at blanks; double quotes group, \" inside quotes is a quote.
// False (with `error`) for an unclosed quote.
bool SplitCommandLine(const std::string& line, std::vector<std::string>& args, std::string& error);

// Replaces {name} by values[name] inside every argument; an argument that is exactly
// "{options}" becomes `options`, one argument each, and one that is exactly "{record}" becomes
// values["record"] or nothing when that is empty. Unknown placeholders stay as written.
std::vector<std::string> ExpandCommandLine(const std::vector<std::string>& args,
                                           const std::map<std::string, std::string>& values,
                                           const std::vector<std::string>& options);

// A program path with a '/' that is not absolute is taken from the station folder.
std::string ResolveProgram(const std::string& program, const std::string& stationDir);

}  // namespace quorvel::engine
