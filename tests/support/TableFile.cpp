#include "support/TableFile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>

namespace quorvel::test {
namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::vector<std::string>> Split(const std::string& line) {
    std::vector<std::string> words;
    std::size_t i = 0;
    while (true) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        if (i == line.size()) return words;
        std::string word;
        if (line[i] != '"') {
            while (i < line.size() && line[i] != ' ' && line[i] != '\t') word += line[i++];
            words.push_back(word);
            continue;
        }
        for (++i;; ++i) {
            if (i >= line.size()) return std::nullopt;
            if (line[i] == '"') break;
            if (line[i] != '\\') {
                word += line[i];
                continue;
            }
            if (++i >= line.size()) return std::nullopt;
            switch (line[i]) {
                case 'n': word += '\n'; break;
                case 'r': word += '\r'; break;
                case 't': word += '\t'; break;
                case '"':
                case '\\': word += line[i]; break;
                case 'x': {
                    const int hi = i + 2 < line.size() ? HexDigit(line[i + 1]) : -1;
                    const int lo = hi >= 0 ? HexDigit(line[i + 2]) : -1;
                    if (lo < 0) return std::nullopt;
                    word += static_cast<char>(hi * 16 + lo);
                    i += 2;
                    break;
                }
                default: return std::nullopt;
            }
        }
        words.push_back(word);
        ++i;
    }
}

}  // namespace

std::vector<TableRow> ReadTable(const std::string& name) {
    std::ifstream in(std::string(QUORVEL_SOURCE_DIR) + "/tests/tables/" + name);
    if (!in) ADD_FAILURE() << "no table tests/tables/" << name;
    std::vector<TableRow> rows;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        if (line.empty() || line[0] == '#') continue;
        const std::string where = name + ":" + std::to_string(number);
        auto words = Split(line);
        if (!words) {
            ADD_FAILURE() << where << ": an open quote or a bad escape";
        } else if (!words->empty()) {
            rows.push_back({where, std::move(*words)});
        }
    }
    return rows;
}

}  // namespace quorvel::test
