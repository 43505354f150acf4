#include "engines/program/ProgramSettings.h"

#include <cstdlib>

#include "platform/AtomicFile.h"
#include "platform/ProfileIni.h"

namespace quorvel::engine {

ProgramSettings ProgramSettings::Load(const std::string& iniPath) {
    ProgramSettings s;
    std::string contents;
    if (!platform::ReadWholeFile(iniPath, contents)) return s;
    auto text = [&](const char* key) {
        return platform::ProfileIni::ReadStringFrom(contents, "ENGINES", key, "", 1024);
    };
    s.mtk = text("MTK");
    s.fp = text("FP");
    s.sprd = text("SPRD");
    if (const std::string v = text("SilenceSeconds"); !v.empty()) {
        const long seconds = std::strtol(v.c_str(), nullptr, 10);
        if (seconds > 0 && seconds <= 24L * 3600) s.silenceMs = seconds * 1000;
    }
    s.record = std::strtol(text("Record").c_str(), nullptr, 10) != 0;
    s.benchProgram =
        std::strtol(platform::ProfileIni::ReadStringFrom(contents, "BENCH", "EngineProgram", "", 16).c_str(), nullptr,
                    10) != 0;
    return s;
}

bool SplitCommandLine(const std::string& line, std::vector<std::string>& args, std::string& error) {
    args.clear();
    std::string current;
    bool inWord = false, quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quoted) {
            if (c == '\\' && i + 1 < line.size() && line[i + 1] == '"') {
                current += '"';
                ++i;
            } else if (c == '"') {
                quoted = false;
            } else {
                current += c;
            }
        } else if (c == '"') {
            quoted = inWord = true;
        } else if (c == ' ' || c == '\t') {
            if (inWord) args.push_back(std::move(current));
            current.clear();
            inWord = false;
        } else {
            current += c;
            inWord = true;
        }
    }
    if (quoted) {
        error = "a quote is not closed";
        return false;
    }
    if (inWord) args.push_back(std::move(current));
    if (args.empty()) {
        error = "the command line is empty";
        return false;
    }
    return true;
}

std::vector<std::string> ExpandCommandLine(const std::vector<std::string>& args,
                                           const std::map<std::string, std::string>& values,
                                           const std::vector<std::string>& options) {
    std::vector<std::string> out;
    for (const auto& arg : args) {
        if (arg == "{options}") {
            out.insert(out.end(), options.begin(), options.end());
            continue;
        }
        if (arg == "{record}") {  // a flag: present or absent, never an empty argument
            const auto it = values.find("record");
            if (it != values.end() && !it->second.empty()) out.push_back(it->second);
            continue;
        }
        std::string expanded;
        for (std::size_t i = 0; i < arg.size();) {
            const std::size_t open = arg.find('{', i);
            const std::size_t close = open == std::string::npos ? open : arg.find('}', open);
            if (close == std::string::npos) {
                expanded += arg.substr(i);
                break;
            }
            expanded += arg.substr(i, open - i);
            auto it = values.find(arg.substr(open + 1, close - open - 1));
            expanded += it != values.end() ? it->second : arg.substr(open, close - open + 1);
            i = close + 1;
        }
        out.push_back(std::move(expanded));
    }
    return out;
}

std::string ResolveProgram(const std::string& program, const std::string& stationDir) {
    if (program.empty() || program[0] == '/' || program.find('/') == std::string::npos) return program;
    return stationDir + program;
}

}  // namespace quorvel::engine
