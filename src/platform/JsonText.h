#pragma once
// JSON text for every line the station and its tools write or read as JSON: string
// literals out, flat objects (and shallowly nested ones) in. Pure functions: any thread.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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

struct JsonValue;
using JsonObject = std::map<std::string, JsonValue, std::less<>>;

struct JsonValue {
    enum Kind { STRING, NUMBER, BOOL, NUL, OBJECT, ARRAY } kind = NUL;
    std::string text;                          // STRING: the text; NUMBER: the number as written
    double number = 0;                         // NUMBER, always finite
    bool flag = false;                         // BOOL
    std::shared_ptr<const JsonObject> object;  // OBJECT
    std::vector<JsonValue> items;              // ARRAY
};

// `text` as exactly one flat JSON object (values strings, numbers, true, false, null),
// blanks around it allowed; nothing on anything else, however broken. A key given
// twice keeps its last value.
std::optional<JsonObject> ReadFlatJsonObject(std::string_view text, LoneSurrogate lone);
// As ReadFlatJsonObject, but values may also be objects and arrays nested up to `depth`
// levels below the outer object; deeper nesting is refused, so no input can exhaust the
// stack.
std::optional<JsonObject> ReadJsonObject(std::string_view text, LoneSurrogate lone, int depth);

}  // namespace quorvel::platform
