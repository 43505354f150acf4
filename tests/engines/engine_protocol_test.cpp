#include <gtest/gtest.h>

#include <sstream>

#include "engines/program/EngineProtocol.h"
#include "engines/program/ProgramSettings.h"
#include "platform/JsonText.h"
#include "support/Golden.h"

namespace quorvel::engine::protocol {
namespace {

// What a line is, and every field of its event that differs from a blank one.
std::string Classified(const std::string& line) {
    Event e;
    std::string why;
    switch (Classify(line, e, why)) {
        case LineKind::TEXT: return "text";
        case LineKind::GARBAGE: return "garbage: " + why;
        case LineKind::PROTOCOL: break;
    }
    static const char* const kTypes[] = {"hello", "step", "status", "progress", "switch", "device", "result", "other"};
    std::ostringstream s;
    s << kTypes[e.type];
    const auto text = [&](const char* name, const std::string& v) {
        if (!v.empty()) s << ' ' << name << "=\"" << test::Printable(v) << '"';
    };
    if (e.type == Event::HELLO) s << " version=" << e.version;
    text("program", e.program);
    if (e.step >= 0) s << " step=" << e.step;
    text("key", e.key);
    text("text", e.text);
    if (e.done) s << " done=" << *e.done;
    if (e.total) s << " total=" << *e.total;
    if (e.percent) s << " percent=" << *e.percent;
    text("file", e.file);
    text("chip", e.device.chip);
    text("serial", e.device.serial);
    text("imei", e.device.imei);
    if (e.type == Event::RESULT) s << " ok=" << (e.ok ? "true" : "false");
    text("error", e.error);
    return s.str();
}

TEST(EngineProtocol, ClassifiesLinesAndReadsTheirFields) {
    EXPECT_TRUE(test::MatchesCaseGolden("engine-protocol/lines.txt", Classified));
    // Lines a text file cannot hold well.
    EXPECT_EQ(Classified(""), "text");
    EXPECT_EQ(Classified("  {\"t\":\"hello\",\"protocol\":1,\"program\":\"x 1\"}\r"),
              "hello version=1 program=\"x 1\"");
    EXPECT_EQ(Classified(std::string("a\0b", 3)).rfind("garbage: ", 0), 0u);
    EXPECT_EQ(
        Classified("{\"t\":\"status\",\"text\":\"" + std::string(kMaxLineBytes, 'x') + "\"}").rfind("garbage: ", 0),
        0u);
    // What JsonQuote writes reads back as the same text.
    const std::string text = "tab\there \"quoted\" back\\slash \x01 ctl";
    Event e;
    std::string why;
    ASSERT_EQ(Classify("{\"t\":\"status\",\"text\":" + platform::JsonQuote(text) + "}", e, why), LineKind::PROTOCOL);
    EXPECT_EQ(e.text, text);
}

}  // namespace
}  // namespace quorvel::engine::protocol
namespace quorvel::engine {
namespace {

TEST(EngineCommandLine, PlaceholdersThatStandAlone) {
    const std::vector<std::string> args = {"flash", "--port", "{port}", "{record}", "{options}", "{unknown}"};
    const std::vector<std::string> options = {"A=1", "B=2"};
    EXPECT_EQ(ExpandCommandLine(args, {{"port", "7"}, {"record", "--record"}}, options),
              (std::vector<std::string>{"flash", "--port", "7", "--record", "A=1", "B=2", "{unknown}"}));
    EXPECT_EQ(ExpandCommandLine(args, {{"port", "7"}, {"record", ""}}, {}),
              (std::vector<std::string>{"flash", "--port", "7", "{unknown}"}));
}

}  // namespace
}  // namespace quorvel::engine
