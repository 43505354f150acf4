#pragma once
// Private-profile INI files: read one value, write one value, as the station's
// settings and counters are kept. Every call reads or rewrites the file itself,
// so several writers in one process never lose each other's values.
// Thread-safe: writes to the same path are serialised within the process.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvel::platform {

class ProfileIni {
public:
    // Reads section/key; a missing file, section or key gives `defaultValue`.
    // Names compare case-insensitively; blanks around names and values are trimmed;
    // one pair of matching surrounding quotes is removed; the result is cut to
    // `bufferSize` - 1 bytes. The first occurrence of a section or key wins.
    static std::string ReadString(const std::string& path, std::string_view section, std::string_view key,
                                  std::string_view defaultValue, std::size_t bufferSize);

    // Integer read: leading blanks, an optional sign, "0x" for hexadecimal, digits up to the
    // first other character; a missing or empty value gives `defaultValue`, a negative one 0.
    static std::uint32_t ReadInt(const std::string& path, std::string_view section, std::string_view key,
                                 std::uint32_t defaultValue);

    // Replaces one value, creating the file, the section (at the end) or the key (at the
    // end of its section) as needed, keeping every other line as it was. The file is
    // replaced atomically. Returns false when the file could not be written.
    static bool WriteString(const std::string& path, std::string_view section, std::string_view key,
                            std::string_view value);

    // Several writes applied in order and replaced in one atomic step.
    struct Write {
        std::string section, key, value;
    };
    static bool WriteMany(const std::string& path, const std::vector<Write>& writes);

    // The same reads over file contents already in memory.
    static std::string ReadStringFrom(std::string_view contents, std::string_view section, std::string_view key,
                                      std::string_view defaultValue, std::size_t bufferSize);
    static std::uint32_t ReadIntFrom(std::string_view contents, std::string_view section, std::string_view key,
                                     std::uint32_t defaultValue);

    // The parsing and editing behind the calls above, on file contents in memory.
    static std::pair<bool, std::string> Lookup(std::string_view contents, std::string_view section,
                                               std::string_view key);
    static std::string Apply(std::string contents, std::string_view section, std::string_view key,
                             std::string_view value);
};

// "Unsigned decimal" conversion of option values: leading blanks, optional sign,
// decimal digits up to the first other character, 0 when none; wraps a negative
// value and saturates at 2^32 - 1 as a 32-bit strtoul does.
std::uint32_t ParseUnsigned(std::string_view text);

}  // namespace quorvel::platform
