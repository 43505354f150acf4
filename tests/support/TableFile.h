#pragma once
// Test cases kept as rows of a text file under tests/tables/, one case a line, so a
// reviewer reads the cases without C++ around them. Words are split at blanks; a word in
// double quotes may hold blanks and the escapes \n \r \t \" \\ and \xNN. Blank lines and
// lines starting with '#' are skipped.
#include <string>
#include <vector>

namespace quorvel::test {

struct TableRow {
    std::string where;  // "file:line", for the failure message
    std::vector<std::string> words;
};

// The rows of tests/tables/<name>; a line that does not split (an open quote, a bad
// escape) fails the test that reads it and is left out.
std::vector<TableRow> ReadTable(const std::string& name);

}  // namespace quorvel::test
