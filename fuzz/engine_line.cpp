// Engine-program output lines on arbitrary bytes: no crash, and what JsonQuote writes
// always reads back as the same text (bytes that are not UTF-8 read back as U+FFFD).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "engines/program/EngineProtocol.h"
#include "platform/JsonText.h"

namespace protocol = quorvel::engine::protocol;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    protocol::Event event;
    std::string why;
    protocol::Classify(bytes, event, why);
    protocol::ParseObject(bytes);
    // Texts without NUL bytes survive a round trip through a status line.
    std::string text = bytes.substr(0, 4096);
    for (char& c : text)
        if (c == '\0') c = ' ';
    const std::string quoted = quorvel::platform::JsonQuote(text);
    if (protocol::Classify("{\"t\":\"status\",\"text\":" + quoted + "}", event, why) != protocol::LineKind::PROTOCOL ||
        quorvel::platform::JsonQuote(event.text) != quoted)
        std::abort();
    return 0;
}
