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

// The two pieces every reader of JSON escapes needs: four hex digits at s[i] (i moves
// past what was read; false on a short or bad run), and a code point appended as UTF-8.
bool ReadHex4(std::string_view s, std::size_t& i, std::uint32_t& out);
void AppendUtf8(std::string& out, std::uint32_t cp);

}  // namespace quorvel::platform
