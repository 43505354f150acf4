#pragma once
// Private-profile INI files: read one value, write one value, as the station's
// settings and counters are kept. A file is parsed once per change: reads share a
// parsed copy keyed on the file's identity (device, inode, size, modification time),
// which a write through this class replaces.
// Thread-safe: writes to the same path are serialised within the process.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quorvel::platform {

// One file's contents with an index of its sections and keys. Lines end in LF, CR LF
// or a lone CR. Keys before the first section belong to the nameless section "".
// A section line needs its closing bracket; a line beginning with ";" is no comment.
class ProfileDocument {
public:
    explicit ProfileDocument(std::string contents);

    // The first occurrence of the key in the first occurrence of the section,
    // trimmed and with one pair of matching surrounding quotes removed.
    std::pair<bool, std::string> Lookup(std::string_view section, std::string_view key) const;

    struct Write {
        std::string section, key, value;
    };
    // The contents after the writes, applied in order; see ProfileIni::WriteMany.
    std::string Edited(const std::vector<Write>& writes) const;

private:
    struct Key {
        std::uint64_t hash;
        std::size_t line;  // offset of the key's line
    };
    struct Section {
        std::size_t insertAt;   // after the last non-blank line of the section
        std::vector<Key> keys;  // sorted by hash, file order among equal hashes
    };
    const Section* FindSection(std::string_view name) const;
    // Offset of the key's line in `s`, or npos.
    std::size_t FindKey(const Section& s, std::string_view key) const;

    std::string contents_;
    std::string eol_;  // the ending of the first terminated line, for new lines
    std::vector<Section> sections_;
    std::unordered_map<std::string, std::size_t> sectionIndex_;  // lower-case name -> first occurrence
};

class ProfileIni {
public:
    // Reads section/key; a missing or unreadable file, section or key gives `defaultValue`.
    // Names compare case-insensitively; blanks around names and values are trimmed;
    // one pair of matching surrounding quotes is removed; the result is cut to
    // `bufferSize` - 1 bytes. The first occurrence of a section or key wins. The
    // default loses its trailing blanks.
    static std::string ReadString(const std::string& path, std::string_view section, std::string_view key,
                                  std::string_view defaultValue, std::size_t bufferSize);

    // Integer read as the platform's integer profile reader does: only the first
    // kIntBuffer - 1 characters of the value count; leading blanks, an optional sign,
    // a lower-case "0x", "0o" or "0b" prefix for bases 16, 8 and 2, digits up to the
    // first other character; the result wraps modulo 2^32 (so "-1" is 4294967295).
    // A missing or empty value gives `defaultValue`.
    static constexpr std::size_t kIntBuffer = 30;
    static std::uint32_t ReadInt(const std::string& path, std::string_view section, std::string_view key,
                                 std::uint32_t defaultValue);

    // Replaces one value, creating the file, the section (at the end) or the key (at the
    // end of its section) as needed, keeping every other line as it was. Line breaks
    // in a section, key or value become blanks and a NUL ends the text, so no write can
    // add lines or sections. The file is replaced atomically. Returns false, with errno
    // set and the file untouched, when the file exists but cannot be read, is not
    // writable by this process, or could not be replaced.
    static bool WriteString(const std::string& path, std::string_view section, std::string_view key,
                            std::string_view value);

    // Several writes applied in order and replaced in one atomic step.
    using Write = ProfileDocument::Write;
    static bool WriteMany(const std::string& path, const std::vector<Write>& writes);

    // The parsed file, shared while the file does not change. A missing file gives an
    // empty document; null when the file exists but cannot be read (errno set).
    static std::shared_ptr<const ProfileDocument> Load(const std::string& path);

    // The same reads over file contents already in memory.
    static std::string ReadStringFrom(std::string_view contents, std::string_view section, std::string_view key,
                                      std::string_view defaultValue, std::size_t bufferSize);
    static std::uint32_t ReadIntFrom(std::string_view contents, std::string_view section, std::string_view key,
                                     std::uint32_t defaultValue);
    static std::string ReadStringFrom(const ProfileDocument& doc, std::string_view section, std::string_view key,
                                      std::string_view defaultValue, std::size_t bufferSize);
    static std::uint32_t ReadIntFrom(const ProfileDocument& doc, std::string_view section, std::string_view key,
                                     std::uint32_t defaultValue);

    // The parsing and editing behind the calls above, on file contents in memory.
    static std::pair<bool, std::string> Lookup(std::string_view contents, std::string_view section,
                                               std::string_view key);
    static std::string Apply(std::string contents, std::string_view section, std::string_view key,
                             std::string_view value);
};

// The integer text conversion of ReadInt, on a value already read.
std::uint32_t ParseProfileInt(std::string_view text);

// "Unsigned decimal" conversion of option values: leading blanks, optional sign,
// decimal digits up to the first other character, 0 when none; the result wraps
// modulo 2^32, negative values included.
std::uint32_t ParseUnsigned(std::string_view text);

}  // namespace quorvel::platform
