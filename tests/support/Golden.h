#pragma once
// Expected outputs kept as files under tests/golden/, one per case: a reviewer reads the
// whole output, and a deliberate change of it is one run with QUORVEL_UPDATE_GOLDEN=1 and
// a look at the diff, not a hunt through EXPECT lines.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/RunTool.h"

namespace quorvel::test {

// Texts that differ from run to run (a temporary folder, a tool's build path) and what
// stands for them in a golden file.
using Scrubs = std::vector<std::pair<std::string, std::string>>;

std::string Scrub(std::string text, const Scrubs& scrubs);

// `bytes` on one line: a line break as \n, other control bytes and NUL as \xNN.
std::string Printable(const std::string& bytes);

// A file or folder of the source tree, by its path from the top.
std::string SourcePath(const std::string& relative);

// `actual` against tests/golden/<name>; with QUORVEL_UPDATE_GOLDEN=1 it writes the file.
::testing::AssertionResult MatchesGolden(const std::string& name, const std::string& actual);

// A golden file that holds its own cases: each line is an input, except comments ("##"),
// blank lines and the "=> " lines under an input, which are what `run` made of it (one
// "=> " line per line of its answer). New cases need only their input line and one run
// with QUORVEL_UPDATE_GOLDEN=1.
::testing::AssertionResult MatchesCaseGolden(const std::string& name,
                                             const std::function<std::string(const std::string&)>& run);

// One run of a tool as a golden text: the command line, the exit status and everything
// printed. `prefix` goes before the tool on the shell line (an environment, a cd) and is
// shown too.
std::string RunTranscript(const std::string& tool, const std::string& args, const Scrubs& scrubs = {},
                          const std::string& prefix = "");

}  // namespace quorvel::test
