#include "engines/program/EngineProtocol.h"

#include <cmath>

#include "platform/JsonText.h"

namespace quorvel::engine::protocol {

namespace {

// Whole non-negative numbers up to 2^53, where doubles are still exact.
bool Count(const Value& v, std::uint64_t& out) {
    if (v.kind != Value::NUMBER || v.number < 0 || v.number > 9007199254740992.0 || v.number != std::floor(v.number))
        return false;
    out = static_cast<std::uint64_t>(v.number);
    return true;
}

const Value* Field(const Object& o, std::string_view key, Value::Kind kind) {
    auto it = o.find(key);
    return it != o.end() && it->second.kind == kind ? &it->second : nullptr;
}

bool Has(const Object& o, std::string_view key) {
    return o.find(key) != o.end();
}

// 1..kMaxIdentityChars characters, none of them a control character: it is shown in
// tables and named in files.
bool IdentityText(const std::string& s) {
    std::size_t chars = 0;
    for (unsigned char c : s) {
        if (c < 0x20 || c == 0x7F) return false;
        chars += (c & 0xC0) != 0x80;
    }
    return chars >= 1 && chars <= kMaxIdentityChars;
}

bool Imei(const std::string& s) {
    return s.size() == 15 && s.find_first_not_of("0123456789") == std::string::npos;
}

LineKind Garbage(std::string& why, const char* text) {
    why = text;
    return LineKind::GARBAGE;
}

}  // namespace

std::optional<Object> ParseObject(std::string_view line) {
    if (line.size() > kMaxLineBytes) return std::nullopt;
    return platform::ReadFlatJsonObject(line, platform::LoneSurrogate::REFUSE);
}

LineKind Classify(std::string_view line, Event& event, std::string& why) {
    event = Event{};
    why.clear();
    if (line.size() > kMaxLineBytes) return Garbage(why, "a line longer than 64 KiB");
    if (line.find('\0') != std::string_view::npos) return Garbage(why, "binary output");
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos || line[first] != '{') return LineKind::TEXT;

    const auto obj = ParseObject(line);
    if (!obj) return Garbage(why, "a line that is not a flat JSON object");
    const Value* t = Field(*obj, "t", Value::STRING);
    if (!t) return Garbage(why, "an object without a \"t\" text");
    const std::string& type = t->text;
    std::uint64_t n = 0;

    if (type == "hello") {
        const Value* v = Field(*obj, "protocol", Value::NUMBER);
        if (!v || !Count(*v, n) || n > 1000000) return Garbage(why, "a hello without a protocol version");
        event.type = Event::HELLO;
        event.version = static_cast<int>(n);
        if (const Value* p = Field(*obj, "program", Value::STRING)) event.program = p->text;
    } else if (type == "step") {
        const Value* v = Field(*obj, "step", Value::NUMBER);
        if (!v || !Count(*v, n) || n > 13) return Garbage(why, "a step number outside 0..13");
        event.type = Event::STEP;
        event.step = static_cast<int>(n);
    } else if (type == "status") {
        const Value* key = Field(*obj, "key", Value::STRING);
        const Value* text = Field(*obj, "text", Value::STRING);
        if (!key && !text) return Garbage(why, "a status without \"key\" or \"text\"");
        event.type = Event::STATUS;
        if (key) event.key = key->text;
        if (text) event.text = text->text;
    } else if (type == "progress") {
        event.type = Event::PROGRESS;
        const bool bytes = Has(*obj, "done") || Has(*obj, "total");
        if (bytes) {
            std::uint64_t done = 0, total = 0;
            const Value* d = Field(*obj, "done", Value::NUMBER);
            const Value* tt = Field(*obj, "total", Value::NUMBER);
            if (!d || !tt || !Count(*d, done) || !Count(*tt, total) || done > total)
                return Garbage(why, "a progress whose done and total are not counts with done <= total");
            event.done = done;
            event.total = total;
        }
        if (Has(*obj, "percent")) {
            const Value* p = Field(*obj, "percent", Value::NUMBER);
            if (!p || !Count(*p, n) || n > 100) return Garbage(why, "a percent outside 0..100");
            event.percent = static_cast<int>(n);
        }
        if (!bytes && !event.percent) return Garbage(why, "a progress without done/total or percent");
        if (const Value* f = Field(*obj, "file", Value::STRING)) event.file = f->text;
    } else if (type == "switch") {
        event.type = Event::SWITCH;
    } else if (type == "device") {
        event.type = Event::DEVICE;
        app::PhoneIdentity& d = event.device;
        for (auto [key, member] : {std::pair{"chip", &d.chip}, {"serial", &d.serial}, {"imei", &d.imei}}) {
            if (!Has(*obj, key)) continue;
            const Value* v = Field(*obj, key, Value::STRING);
            if (!v) return Garbage(why, "a device line whose chip, serial or imei is not a text");
            *member = v->text;
        }
        if ((Has(*obj, "chip") && !IdentityText(d.chip)) || (Has(*obj, "serial") && !IdentityText(d.serial)))
            return Garbage(why, "a device line whose chip or serial is empty, too long or holds a control character");
        if (Has(*obj, "imei") && !Imei(d.imei)) return Garbage(why, "a device line whose imei is not 15 digits");
        if (d.Empty()) return Garbage(why, "a device line without chip, serial or imei");
    } else if (type == "result") {
        const Value* ok = Field(*obj, "ok", Value::BOOL);
        if (!ok) return Garbage(why, "a result without \"ok\" true or false");
        event.type = Event::RESULT;
        event.ok = ok->flag;
        if (const Value* e = Field(*obj, "error", Value::STRING)) event.error = e->text;
    } else {
        event.type = Event::OTHER;  // a later minor addition; ignored
    }
    return LineKind::PROTOCOL;
}

}  // namespace quorvel::engine::protocol
