// Engine-program output lines on arbitrary bytes: no crash, and what Quote writes
// always reads back as the same text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "engine/EngineProtocol.h"

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
    if (protocol::Classify("{\"t\":\"status\",\"text\":" + protocol::Quote(text) + "}", event, why) !=
            protocol::LineKind::PROTOCOL ||
        event.text != text)
        std::abort();
    return 0;
}
