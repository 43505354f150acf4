#pragma once
// JSON string literals for every line the station and its tools write as JSON.
// Pure function: any thread.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quorvel::platform {

// `text` as a JSON string literal, quotes included. Valid JSON whatever the bytes:
// quotes, backslashes and control characters are escaped, and bytes that are not
// UTF-8 become U+FFFD, so a hostile name can never break a line.
std::string JsonQuote(std::string_view text);

// A code point appended as UTF-8.
void AppendUtf8(std::string& out, std::uint32_t cp);

// What a reader makes of an escaped surrogate that is not half of a pair.
enum class LoneSurrogate {
    REFUSE,   // the string is refused; so is an escaped NUL (texts end up in C strings)
    REPLACE,  // it reads as U+FFFD
};
// Reads a JSON string from just after its opening quote up to and including its closing
// quote (i moves past it), unescaped into `out`. False on a raw control character, a bad
// escape or a missing closing quote.
bool ReadJsonString(std::string_view s, std::size_t& i, std::string& out, LoneSurrogate lone);

}  // namespace quorvel::platform
