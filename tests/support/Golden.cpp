#include "support/Golden.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace quorvel::test {
namespace {

bool Updating() {
    const char* v = std::getenv("QUORVEL_UPDATE_GOLDEN");
    return v && *v && std::string(v) != "0";
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

std::string Scrub(std::string text, const Scrubs& scrubs) {
    for (const auto& [from, to] : scrubs) {
        if (from.empty()) continue;
        for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
            text.replace(at, from.size(), to);
    }
    return text;
}

std::string Printable(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        if (c == '\n') {
            text += "\\n";
        } else if (b < 0x20 || b == 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", b);
            text += hex;
        } else {
            text += c;
        }
    }
    return text;
}

std::string SourcePath(const std::string& relative) {
    return std::string(QUORVEL_SOURCE_DIR) + "/" + relative;
}

::testing::AssertionResult MatchesGolden(const std::string& name, const std::string& actual) {
    const std::filesystem::path file = std::filesystem::path(QUORVEL_SOURCE_DIR) / "tests/golden" / name;
    if (Updating()) {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << actual;
        return ::testing::AssertionSuccess();
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return ::testing::AssertionFailure()
               << "no golden file " << file.string() << "; run with QUORVEL_UPDATE_GOLDEN=1 to write it. Output:\n"
               << actual;
    }
    std::stringstream stored;
    stored << in.rdbuf();
    if (stored.str() == actual) return ::testing::AssertionSuccess();
    // The first line that differs, with the whole output: enough to judge without a diff tool.
    const auto want = Lines(stored.str()), got = Lines(actual);
    std::size_t i = 0;
    while (i < want.size() && i < got.size() && want[i] == got[i]) ++i;
    auto failure = ::testing::AssertionFailure();
    failure << name << " differs at line " << i + 1 << "\n  expected: " << (i < want.size() ? want[i] : "(end)")
            << "\n  actual:   " << (i < got.size() ? got[i] : "(end)")
            << "\nrun with QUORVEL_UPDATE_GOLDEN=1 if the change is meant. Output:\n"
            << actual;
    return failure;
}

::testing::AssertionResult MatchesCaseGolden(const std::string& name,
                                             const std::function<std::string(const std::string&)>& run) {
    std::ifstream in(std::filesystem::path(QUORVEL_SOURCE_DIR) / "tests/golden" / name, std::ios::binary);
    if (!in) return ::testing::AssertionFailure() << "no golden file " << name << " to take the cases from";
    std::string actual;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("=> ", 0) == 0) continue;
        actual += line + "\n";
        if (line.empty() || line.rfind("##", 0) == 0) continue;
        for (const auto& answer : Lines(run(line))) actual += "=> " + answer + "\n";
    }
    return MatchesGolden(name, actual);
}

std::string RunTranscript(const std::string& tool, const std::string& args, const Scrubs& scrubs,
                          const std::string& prefix) {
    const std::string line = args.substr(0, args.find_last_not_of(' ') + 1);
    const CommandResult r = RunCommand(prefix + ToolPath(tool) + (line.empty() ? "" : " " + line));
    Scrubs all{{ToolPath(tool), tool}};
    all.insert(all.end(), scrubs.begin(), scrubs.end());
    return Scrub(
        "$ " + prefix + tool + (line.empty() ? "" : " " + line) + "\nexit " + std::to_string(r.exitCode) + "\n" + r.out,
        all);
}

}  // namespace quorvel::test
