#pragma once
// The line protocol of engine programs (docs/engine-protocol.md): one flat JSON
// object per line on the program's standard output. This reader accepts only flat
// objects (strings, numbers, true, false, null) and never throws; any input, however
// long or broken, gives a classification. Pure functions, any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "history/JobRecord.h"
#include "platform/JsonText.h"

namespace quorvel::engine::protocol {

inline constexpr int kVersion = 1;
// A longer line is garbage: no program has a reason to write one.
inline constexpr std::size_t kMaxLineBytes = std::size_t{64} * 1024;

using Value = platform::JsonValue;
using Object = platform::JsonObject;

// The object of `line`, or nothing when it is not exactly one flat JSON object. An
// escaped NUL or lone surrogate breaks it: texts end up in C strings.
std::optional<Object> ParseObject(std::string_view line);

struct Event {
    enum Type { HELLO, STEP, STATUS, PROGRESS, SWITCH, DEVICE, RESULT, OTHER } type = OTHER;
    int version = 0;                           // HELLO
    std::string program;                       // HELLO: name and version of the program
    int step = -1;                             // STEP
    std::string key;                           // STATUS: one of the well-known status keys, or empty
    std::string text;                          // STATUS: free text (used when key is empty)
    std::optional<std::uint64_t> done, total;  // PROGRESS, bytes
    std::optional<int> percent;                // PROGRESS, 0..100
    std::string file;                          // PROGRESS of --verify: the file being checked
    app::PhoneIdentity device;                 // DEVICE: the members it gave
    bool ok = false;                           // RESULT
    std::string error;                         // RESULT
};

enum class LineKind {
    TEXT,      // free output of the program: goes to the job's log
    PROTOCOL,  // `event` is filled
    GARBAGE,   // an object that is broken or breaks the protocol's rules; `why` says how
};

LineKind Classify(std::string_view line, Event& event, std::string& why);

// The longest chip name or serial number a device line may give.
inline constexpr std::size_t kMaxIdentityChars = 64;

}  // namespace quorvel::engine::protocol
