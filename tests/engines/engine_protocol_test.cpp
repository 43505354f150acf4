#include <gtest/gtest.h>

#include "engines/program/EngineProtocol.h"
#include "engines/program/ProgramSettings.h"
#include "platform/JsonText.h"

namespace quorvel::engine::protocol {
namespace {

struct LineCase {
    const char* line;
    LineKind kind;
    Event::Type type;
};

TEST(EngineProtocol, ClassifiesLines) {
    const LineCase cases[] = {
        {"plain text from the flasher", LineKind::TEXT, Event::OTHER},
        {"", LineKind::TEXT, Event::OTHER},
        {"  {\"t\":\"hello\",\"protocol\":1,\"program\":\"x 1\"}\r", LineKind::PROTOCOL, Event::HELLO},
        {"{\"t\":\"step\",\"step\":13}", LineKind::PROTOCOL, Event::STEP},
        {"{\"t\":\"step\",\"step\":14}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"step\",\"step\":1.5}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"status\",\"key\":\"bind\"}", LineKind::PROTOCOL, Event::STATUS},
        {"{\"t\":\"status\"}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"progress\",\"percent\":100}", LineKind::PROTOCOL, Event::PROGRESS},
        {"{\"t\":\"progress\",\"percent\":101}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"progress\",\"done\":5,\"total\":4}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"progress\",\"done\":5}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"progress\",\"done\":-1,\"total\":4}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"progress\"}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"switch\",\"extra\":null}", LineKind::PROTOCOL, Event::SWITCH},
        {"{\"t\":\"result\",\"ok\":false,\"error\":\"x\"}", LineKind::PROTOCOL, Event::RESULT},
        {"{\"t\":\"result\",\"ok\":1}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"later-addition\"}", LineKind::PROTOCOL, Event::OTHER},
        {"{\"t\":\"device\",\"serial\":\"0123ABCD\",\"board\":2}", LineKind::PROTOCOL, Event::DEVICE},
        {"{\"t\":\"device\"}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"device\",\"chip\":\"\"}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"device\",\"chip\":7}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"device\",\"serial\":\"a\\nb\"}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"device\",\"imei\":\"35693803564380\"}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"device\",\"imei\":\"35693803564380x\"}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":7}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"switch\",\"nested\":{}}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"switch\"} trailing", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"switch\",}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"sw\\u0000\"}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"result\",\"ok\":true,\"n\":01}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"result\",\"ok\":true,\"n\":1e999}", LineKind::GARBAGE, Event::OTHER},
        {"{\"t\":\"status\",\"text\":\"bad \\ud800 surrogate\"}", LineKind::GARBAGE, Event::OTHER},
        {"{", LineKind::GARBAGE, Event::OTHER},
    };
    for (const auto& c : cases) {
        Event e;
        std::string why;
        EXPECT_EQ(Classify(c.line, e, why), c.kind) << c.line;
        if (c.kind == LineKind::PROTOCOL) {
            EXPECT_EQ(e.type, c.type) << c.line;
        }
        if (c.kind == LineKind::GARBAGE) {
            EXPECT_FALSE(why.empty()) << c.line;
        }
    }
    Event e;
    std::string why;
    EXPECT_EQ(Classify(std::string("a\0b", 3), e, why), LineKind::GARBAGE);
    EXPECT_EQ(Classify("{\"t\":\"status\",\"text\":\"" + std::string(kMaxLineBytes, 'x') + "\"}", e, why),
              LineKind::GARBAGE);
}

TEST(EngineProtocol, ReadsFieldsAndEscapes) {
    Event e;
    std::string why;
    ASSERT_EQ(Classify("{\"t\":\"progress\",\"done\":3145728,\"total\":10485760}", e, why), LineKind::PROTOCOL);
    EXPECT_EQ(*e.done, 3145728u);
    EXPECT_EQ(*e.total, 10485760u);
    EXPECT_FALSE(e.percent);
    ASSERT_EQ(Classify("{\"t\":\"hello\",\"protocol\":2,\"program\":\"a\\\"b\\u00e9\\ud83d\\ude00\"}", e, why),
              LineKind::PROTOCOL);
    EXPECT_EQ(e.version, 2);
    EXPECT_EQ(e.program, "a\"b\xC3\xA9\xF0\x9F\x98\x80");
    ASSERT_EQ(Classify("{\"t\":\"result\",\"ok\":false,\"error\":\"Erase failed\\n\"}", e, why), LineKind::PROTOCOL);
    EXPECT_FALSE(e.ok);
    EXPECT_EQ(e.error, "Erase failed\n");
    ASSERT_EQ(Classify("{\"t\":\"device\",\"chip\":\"SC9863A\",\"imei\":\"356938035643809\"}", e, why),
              LineKind::PROTOCOL);
    EXPECT_EQ(e.device, (app::PhoneIdentity{"SC9863A", "", "356938035643809"}));

    // What JsonQuote writes reads back as the same text.
    const std::string text = "tab\there \"quoted\" back\\slash \x01 ctl";
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
