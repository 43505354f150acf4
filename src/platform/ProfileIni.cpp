#include "platform/ProfileIni.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>

#include "platform/AtomicFile.h"

namespace quorvel::platform {

namespace {

constexpr std::string_view kBom = "\xEF\xBB\xBF";

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::string_view Trim(std::string_view s) {
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
    return s;
}

bool EqualNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
        if (x < 0x80 && y < 0x80) {
            if (std::tolower(x) != std::tolower(y)) return false;
        } else if (x != y) {
            return false;
        }
    }
    return true;
}

// One line of the file without its line ending, with its position.
struct Line {
    std::size_t begin, end, next;  // [begin,end) text, next = start of the following line
    std::string_view text;
};

std::vector<Line> SplitLines(std::string_view s) {
    std::vector<Line> lines;
    std::size_t pos = s.substr(0, kBom.size()) == kBom ? kBom.size() : 0;
    while (pos < s.size()) {
        std::size_t nl = s.find('\n', pos);
        std::size_t end = nl == std::string_view::npos ? s.size() : nl;
        std::size_t next = nl == std::string_view::npos ? s.size() : nl + 1;
        std::size_t textEnd = (end > pos && s[end - 1] == '\r') ? end - 1 : end;
        lines.push_back({pos, textEnd, next, s.substr(pos, textEnd - pos)});
        pos = next;
    }
    return lines;
}

// Section name of a "[name]" line, or nullopt-like false.
bool SectionName(std::string_view line, std::string_view& name) {
    auto t = Trim(line);
    if (t.empty() || t.front() != '[') return false;
    auto close = t.find(']');
    name = Trim(close == std::string_view::npos ? t.substr(1) : t.substr(1, close - 1));
    return true;
}

bool KeyName(std::string_view line, std::string_view& key, std::string_view& value) {
    auto t = Trim(line);
    if (t.empty() || t.front() == ';') return false;
    auto eq = line.find('=');
    if (eq == std::string_view::npos) return false;
    key = Trim(line.substr(0, eq));
    value = Trim(line.substr(eq + 1));
    return true;
}

std::string_view Unquote(std::string_view v) {
    if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front())
        return v.substr(1, v.size() - 2);
    return v;
}

std::string Cut(std::string_view v, std::size_t bufferSize) {
    if (bufferSize == 0) return {};
    return std::string(v.substr(0, bufferSize - 1));
}

std::mutex& PathMutex(const std::string& path) {
    static std::mutex registryMutex;
    static std::map<std::string, std::mutex> mutexes;
    std::lock_guard g(registryMutex);
    return mutexes[path];
}

}  // namespace

std::pair<bool, std::string> ProfileIni::Lookup(std::string_view contents, std::string_view section,
                                                std::string_view key) {
    bool inSection = false, sectionSeen = false;
    for (const auto& line : SplitLines(contents)) {
        std::string_view name, k, v;
        if (SectionName(line.text, name)) {
            // First occurrence wins: a repeated section is not read again.
            if (inSection) return {false, {}};
            inSection = !sectionSeen && EqualNoCase(name, Trim(section));
            sectionSeen = sectionSeen || inSection;
            continue;
        }
        if (inSection && KeyName(line.text, k, v) && EqualNoCase(k, Trim(key))) return {true, std::string(Unquote(v))};
    }
    return {false, {}};
}

std::string ProfileIni::Apply(std::string contents, std::string_view section, std::string_view key,
                              std::string_view value) {
    const std::string_view s(contents);
    const auto lines = SplitLines(s);
    // New lines take the ending of the first terminated line: CR LF or LF.
    std::string eol = "\n";
    for (const auto& l : lines)
        if (l.next > l.end && s[l.next - 1] == '\n') {
            eol = l.next - l.end == 2 ? "\r\n" : "\n";
            break;
        }
    section = Trim(section);
    key = Trim(key);
    const std::string newLine = std::string(key) + "=" + std::string(value);

    bool inSection = false;
    std::size_t insertAt = std::string::npos;  // after the last non-blank line of the section
    for (const auto& line : lines) {
        std::string_view name, k, v;
        if (SectionName(line.text, name)) {
            if (inSection) break;
            if (insertAt == std::string::npos && EqualNoCase(name, section)) {
                inSection = true;
                insertAt = line.next;
            }
            continue;
        }
        if (!inSection) continue;
        if (KeyName(line.text, k, v) && EqualNoCase(k, key)) {
            // Keep the key as it was spelt and the line's own ending.
            auto eq = line.text.find('=');
            std::string replaced = std::string(line.text.substr(0, eq + 1)) + std::string(value);
            contents.replace(line.begin, line.end - line.begin, replaced);
            return contents;
        }
        if (!Trim(line.text).empty()) insertAt = line.next;
    }
    auto endsWithNewline = [&](std::size_t at) { return at == 0 || contents[at - 1] == '\n'; };
    if (insertAt != std::string::npos) {
        std::string add = newLine + eol;
        if (!endsWithNewline(insertAt)) add = eol + add;
        contents.insert(insertAt, add);
        return contents;
    }
    std::string add = "[" + std::string(section) + "]" + eol + newLine + eol;
    if (!contents.empty() && !endsWithNewline(contents.size())) add = eol + add;
    contents += add;
    return contents;
}

std::string ProfileIni::ReadStringFrom(std::string_view contents, std::string_view section, std::string_view key,
                                       std::string_view defaultValue, std::size_t bufferSize) {
    auto [found, value] = Lookup(contents, section, key);
    return Cut(found ? std::string_view(value) : defaultValue, bufferSize);
}

std::uint32_t ProfileIni::ReadIntFrom(std::string_view contents, std::string_view section, std::string_view key,
                                      std::uint32_t defaultValue) {
    const std::string text = ReadStringFrom(contents, section, key, "", 256);
    std::string_view t = text;
    while (!t.empty() && IsBlank(t.front())) t.remove_prefix(1);
    if (t.empty()) return defaultValue;
    bool negative = false;
    if (t.front() == '+' || t.front() == '-') {
        negative = t.front() == '-';
        t.remove_prefix(1);
    }
    unsigned base = 10;
    if (t.size() >= 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
        base = 16;
        t.remove_prefix(2);
    }
    std::uint64_t v = 0;
    for (char c : t) {
        unsigned d;
        if (c >= '0' && c <= '9') d = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f') d = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F') d = static_cast<unsigned>(c - 'A' + 10);
        else break;
        v = std::min<std::uint64_t>(v * base + d, 0xFFFFFFFFull + 1);
    }
    if (negative) return 0;
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(v, 0xFFFFFFFFull));
}

std::string ProfileIni::ReadString(const std::string& path, std::string_view section, std::string_view key,
                                   std::string_view defaultValue, std::size_t bufferSize) {
    std::string contents;
    if (!ReadWholeFile(path, contents)) return Cut(defaultValue, bufferSize);
    return ReadStringFrom(contents, section, key, defaultValue, bufferSize);
}

std::uint32_t ProfileIni::ReadInt(const std::string& path, std::string_view section, std::string_view key,
                                  std::uint32_t defaultValue) {
    std::string contents;
    if (!ReadWholeFile(path, contents)) return defaultValue;
    return ReadIntFrom(contents, section, key, defaultValue);
}

bool ProfileIni::WriteString(const std::string& path, std::string_view section, std::string_view key,
                             std::string_view value) {
    return WriteMany(path, {{std::string(section), std::string(key), std::string(value)}});
}

bool ProfileIni::WriteMany(const std::string& path, const std::vector<Write>& writes) {
    std::lock_guard g(PathMutex(path));
    std::string contents;
    ReadWholeFile(path, contents);  // a missing file starts empty
    for (const auto& w : writes) contents = Apply(std::move(contents), w.section, w.key, w.value);
    return ReplaceFileAtomically(path, contents);
}

std::uint32_t ParseUnsigned(std::string_view text) {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    std::uint64_t v = 0;
    bool overflow = false;
    for (char c : text) {
        if (c < '0' || c > '9') break;
        v = v * 10 + static_cast<unsigned>(c - '0');
        if (v > 0xFFFFFFFFull) {
            overflow = true;
            v = 0xFFFFFFFFull;
        }
    }
    if (overflow) return 0xFFFFFFFFu;
    auto r = static_cast<std::uint32_t>(v);
    return negative ? static_cast<std::uint32_t>(0u - r) : r;
}

}  // namespace quorvel::platform
