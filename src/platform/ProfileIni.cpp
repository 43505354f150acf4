#include "platform/ProfileIni.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>

#include "platform/AtomicFile.h"

namespace quorvel::platform {

namespace {

constexpr std::string_view kBom = "\xEF\xBB\xBF";
constexpr auto npos = std::string_view::npos;

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

std::string_view Trim(std::string_view s) {
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
    return s;
}

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// ASCII letters fold; other bytes compare as they are.
bool EqualNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (Lower(a[i]) != Lower(b[i])) return false;
    return true;
}

std::string LowerCopy(std::string_view s) {
    std::string r(s);
    for (char& c : r) c = Lower(c);
    return r;
}

std::uint64_t HashNoCase(std::string_view s) {
    std::uint64_t h = 14695981039346656037ull;
    for (char c : s) h = (h ^ static_cast<unsigned char>(Lower(c))) * 1099511628211ull;
    return h;
}

bool IsLineEnd(char c) {
    return c == '\n' || c == '\r';
}

// End of the text of the line starting at `pos`, and the start of the next line.
// LF, CR LF and a lone CR all end a line.
std::pair<std::size_t, std::size_t> LineAt(std::string_view s, std::size_t pos) {
    std::size_t end = pos;
    while (end < s.size() && !IsLineEnd(s[end])) ++end;
    std::size_t next = end;
    if (next < s.size()) next += (s[next] == '\r' && next + 1 < s.size() && s[next + 1] == '\n') ? 2 : 1;
    return {end, next};
}

// As the platform's reader: a line is a header only with its closing bracket; one
// without it is an ordinary line. There are no comments: ";k=v" is the key ";k".
bool SectionName(std::string_view line, std::string_view& name) {
    auto t = Trim(line);
    if (t.empty() || t.front() != '[') return false;
    auto close = t.find(']');
    if (close == npos) return false;
    name = Trim(t.substr(1, close - 1));
    return true;
}

bool KeyName(std::string_view line, std::string_view& key, std::string_view& value) {
    auto eq = line.find('=');
    if (eq == npos) return false;
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

// The platform's reader drops a default's trailing blanks, as it does a value's.
std::string CutDefault(std::string_view v, std::size_t bufferSize) {
    while (!v.empty() && IsBlank(v.back())) v.remove_suffix(1);
    return Cut(v, bufferSize);
}

// A written text can never start a line of its own: line breaks become blanks and a
// NUL ends it, as it would end a C string.
std::string OneLine(std::string_view s) {
    std::string r(s.substr(0, s.find('\0')));
    std::replace_if(r.begin(), r.end(), IsLineEnd, ' ');
    return r;
}

std::mutex& PathMutex(const std::string& path) {
    static std::mutex registryMutex;
    static std::map<std::string, std::mutex> mutexes;
    std::lock_guard g(registryMutex);
    return mutexes[path];
}

// Parsed files by path, valid while the file keeps its identity.
struct Identity {
    dev_t dev;
    ino_t ino;
    off_t size;
    long long mtimeSec, mtimeNsec;
    bool operator==(const Identity&) const = default;
};
Identity IdentityOf(const struct stat& st) {
    return {st.st_dev, st.st_ino, st.st_size, static_cast<long long>(st.st_mtim.tv_sec),
            static_cast<long long>(st.st_mtim.tv_nsec)};
}
struct CacheEntry {
    Identity id;
    std::shared_ptr<const ProfileDocument> doc;
};
std::mutex cacheMutex;
std::map<std::string, CacheEntry> cache;

void Remember(const std::string& path, const Identity& id, std::shared_ptr<const ProfileDocument> doc) {
    std::lock_guard g(cacheMutex);
    if (cache.size() >= 16 && !cache.count(path)) cache.clear();  // bounds the memory held
    cache[path] = {id, std::move(doc)};
}

}  // namespace

ProfileDocument::ProfileDocument(std::string contents) : contents_(std::move(contents)) {
    const std::string_view s(contents_);
    const std::size_t start = s.substr(0, kBom.size()) == kBom ? kBom.size() : 0;
    sections_.push_back({start, {}});
    sectionIndex_.emplace("", 0);
    Section* current = &sections_[0];
    std::string_view eol;
    for (std::size_t pos = start; pos < s.size();) {
        const auto [end, next] = LineAt(s, pos);
        if (eol.empty() && end < s.size()) eol = s.substr(end, next - end);
        const std::string_view text = s.substr(pos, end - pos);
        std::string_view name, k, v;
        if (SectionName(text, name)) {
            // Only the first occurrence of a section is read or written.
            current = nullptr;
            if (sectionIndex_.emplace(LowerCopy(name), sections_.size()).second) {
                sections_.push_back({next, {}});
                current = &sections_.back();
            }
        } else if (current) {
            if (KeyName(text, k, v)) current->keys.push_back({HashNoCase(k), pos});
            if (!Trim(text).empty()) current->insertAt = next;
        }
        pos = next;
    }
    eol_ = eol.empty() ? std::string_view("\n") : eol;
    for (auto& sec : sections_)
        std::stable_sort(sec.keys.begin(), sec.keys.end(), [](const Key& a, const Key& b) { return a.hash < b.hash; });
}

const ProfileDocument::Section* ProfileDocument::FindSection(std::string_view name) const {
    auto it = sectionIndex_.find(LowerCopy(Trim(name)));
    return it == sectionIndex_.end() ? nullptr : &sections_[it->second];
}

std::size_t ProfileDocument::FindKey(const Section& sec, std::string_view key) const {
    key = Trim(key);
    const std::uint64_t h = HashNoCase(key);
    auto it =
        std::lower_bound(sec.keys.begin(), sec.keys.end(), h, [](const Key& a, std::uint64_t v) { return a.hash < v; });
    for (; it != sec.keys.end() && it->hash == h; ++it) {
        const std::string_view s(contents_);
        std::string_view k, v;
        if (KeyName(s.substr(it->line, LineAt(s, it->line).first - it->line), k, v) && EqualNoCase(k, key))
            return it->line;
    }
    return npos;
}

std::pair<bool, std::string> ProfileDocument::Lookup(std::string_view section, std::string_view key) const {
    const Section* sec = FindSection(section);
    if (!sec) return {false, {}};
    const std::size_t line = FindKey(*sec, key);
    if (line == npos) return {false, {}};
    const std::string_view s(contents_);
    std::string_view k, v;
    KeyName(s.substr(line, LineAt(s, line).first - line), k, v);
    return {true, std::string(Unquote(v))};
}

std::string ProfileDocument::Edited(const std::vector<Write>& writes) const {
    struct Pending {
        std::string key, value;
    };
    auto put = [](std::vector<Pending>& keys, std::string key, std::string value) {
        for (auto& p : keys)
            if (EqualNoCase(p.key, key)) {
                p.value = std::move(value);
                return;
            }
        keys.push_back({std::move(key), std::move(value)});
    };
    std::map<std::size_t, std::pair<std::size_t, std::string>> replaced;  // line -> (text end, new text)
    std::map<std::size_t, std::vector<Pending>> inserted;                 // insertion offset -> keys
    std::vector<std::pair<std::string, std::vector<Pending>>> added;      // new sections, in order
    const std::string_view s(contents_);
    for (const auto& w : writes) {
        const std::string section(Trim(OneLine(w.section))), key(Trim(OneLine(w.key))), value = OneLine(w.value);
        if (const Section* sec = FindSection(section)) {
            if (const std::size_t line = FindKey(*sec, key); line != npos) {
                // The key keeps its spelling and the line its ending.
                const std::size_t end = LineAt(s, line).first;
                const std::size_t eq = s.find('=', line);
                replaced[line] = {end, std::string(s.substr(line, eq + 1 - line)) + value};
            } else {
                put(inserted[sec->insertAt], key, value);
            }
            continue;
        }
        auto it = std::find_if(added.begin(), added.end(), [&](auto& a) { return EqualNoCase(a.first, section); });
        if (it == added.end()) it = added.insert(added.end(), {section, {}});
        put(it->second, key, value);
    }

    std::string out;
    out.reserve(s.size() + 64 * writes.size());
    const std::size_t start = s.substr(0, kBom.size()) == kBom ? kBom.size() : 0;
    std::size_t copied = 0;
    auto copyTo = [&](std::size_t pos) {
        out.append(s.substr(copied, pos - copied));
        copied = pos;
    };
    auto ins = inserted.begin();
    auto rep = replaced.begin();
    while (ins != inserted.end() || rep != replaced.end()) {
        if (ins != inserted.end() && (rep == replaced.end() || ins->first <= rep->first)) {
            copyTo(ins->first);
            if (ins->first > start && !IsLineEnd(s[ins->first - 1])) out += eol_;
            for (const auto& p : ins->second) out += p.key + "=" + p.value + eol_;
            ++ins;
        } else {
            copyTo(rep->first);
            out += rep->second.second;
            copied = rep->second.first;
            ++rep;
        }
    }
    copyTo(s.size());
    for (const auto& [name, keys] : added) {
        if (!out.empty() && !IsLineEnd(out.back())) out += eol_;
        out += "[" + name + "]" + eol_;
        for (const auto& p : keys) out += p.key + "=" + p.value + eol_;
    }
    return out;
}

std::shared_ptr<const ProfileDocument> ProfileIni::Load(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return errno == ENOENT || errno == ENOTDIR ? std::make_shared<const ProfileDocument>(std::string()) : nullptr;
    if (S_ISDIR(st.st_mode)) {
        errno = EISDIR;
        return nullptr;
    }
    {
        std::lock_guard g(cacheMutex);
        auto it = cache.find(path);
        if (it != cache.end() && it->second.id == IdentityOf(st)) return it->second.doc;
    }
    std::string contents;
    if (!ReadWholeFile(path, contents, &st)) return nullptr;
    auto doc = std::make_shared<const ProfileDocument>(std::move(contents));
    Remember(path, IdentityOf(st), doc);
    return doc;
}

std::pair<bool, std::string> ProfileIni::Lookup(std::string_view contents, std::string_view section,
                                                std::string_view key) {
    return ProfileDocument(std::string(contents)).Lookup(section, key);
}

std::string ProfileIni::Apply(std::string contents, std::string_view section, std::string_view key,
                              std::string_view value) {
    return ProfileDocument(std::move(contents)).Edited({{std::string(section), std::string(key), std::string(value)}});
}

std::string ProfileIni::ReadStringFrom(const ProfileDocument& doc, std::string_view section, std::string_view key,
                                       std::string_view defaultValue, std::size_t bufferSize) {
    auto [found, value] = doc.Lookup(section, key);
    return found ? Cut(value, bufferSize) : CutDefault(defaultValue, bufferSize);
}

std::uint32_t ProfileIni::ReadIntFrom(const ProfileDocument& doc, std::string_view section, std::string_view key,
                                      std::uint32_t defaultValue) {
    const std::string text = ReadStringFrom(doc, section, key, "", kIntBuffer);
    return text.empty() ? defaultValue : ParseProfileInt(text);
}

std::string ProfileIni::ReadStringFrom(std::string_view contents, std::string_view section, std::string_view key,
                                       std::string_view defaultValue, std::size_t bufferSize) {
    return ReadStringFrom(ProfileDocument(std::string(contents)), section, key, defaultValue, bufferSize);
}

std::uint32_t ProfileIni::ReadIntFrom(std::string_view contents, std::string_view section, std::string_view key,
                                      std::uint32_t defaultValue) {
    return ReadIntFrom(ProfileDocument(std::string(contents)), section, key, defaultValue);
}

std::string ProfileIni::ReadString(const std::string& path, std::string_view section, std::string_view key,
                                   std::string_view defaultValue, std::size_t bufferSize) {
    const auto doc = Load(path);
    if (!doc) return CutDefault(defaultValue, bufferSize);
    return ReadStringFrom(*doc, section, key, defaultValue, bufferSize);
}

std::uint32_t ProfileIni::ReadInt(const std::string& path, std::string_view section, std::string_view key,
                                  std::uint32_t defaultValue) {
    const auto doc = Load(path);
    if (!doc) return defaultValue;
    return ReadIntFrom(*doc, section, key, defaultValue);
}

bool ProfileIni::WriteString(const std::string& path, std::string_view section, std::string_view key,
                             std::string_view value) {
    return WriteMany(path, {{std::string(section), std::string(key), std::string(value)}});
}

bool ProfileIni::WriteMany(const std::string& path, const std::vector<Write>& writes) {
    std::lock_guard g(PathMutex(path));
    // A file that exists but cannot be read is never taken for an empty one.
    const auto doc = Load(path);
    if (!doc) return false;
    std::string contents = doc->Edited(writes);
    struct stat st {};
    if (!ReplaceFileAtomically(path, contents, &st)) return false;
    Remember(path, IdentityOf(st), std::make_shared<const ProfileDocument>(std::move(contents)));
    return true;
}

std::uint32_t ParseProfileInt(std::string_view t) {
    while (!t.empty() && static_cast<unsigned char>(t.front()) <= ' ') t.remove_prefix(1);
    bool negative = false;
    if (!t.empty() && (t.front() == '+' || t.front() == '-')) {
        negative = t.front() == '-';
        t.remove_prefix(1);
    }
    unsigned base = 10;
    if (t.size() >= 2 && t[0] == '0') {
        base = t[1] == 'x' ? 16 : t[1] == 'o' ? 8 : t[1] == 'b' ? 2 : 10;
        if (base != 10) t.remove_prefix(2);
    }
    std::uint32_t v = 0;
    for (char c : t) {
        unsigned d = c >= '0' && c <= '9'   ? static_cast<unsigned>(c - '0')
                     : c >= 'a' && c <= 'z' ? static_cast<unsigned>(c - 'a' + 10)
                     : c >= 'A' && c <= 'Z' ? static_cast<unsigned>(c - 'A' + 10)
                                            : 99;
        if (d >= base) break;
        v = v * base + d;
    }
    return negative ? 0u - v : v;
}

std::uint32_t ParseUnsigned(std::string_view text) {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    std::uint32_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') break;
        v = v * 10 + static_cast<unsigned>(c - '0');
    }
    return negative ? 0u - v : v;
}

}  // namespace quorvel::platform
