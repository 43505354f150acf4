#pragma once
// JSON string literals for every line the station and its tools write as JSON.
// Pure function: any thread.

#include <string>
#include <string_view>

namespace quorvel::platform {

// `text` as a JSON string literal, quotes included. Valid JSON whatever the bytes:
// quotes, backslashes and control characters are escaped, and bytes that are not
// UTF-8 become U+FFFD, so a hostile name can never break a line.
std::string JsonQuote(std::string_view text);

}  // namespace quorvel::platform
