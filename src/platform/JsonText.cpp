#include "platform/JsonText.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace quorvel::platform {
namespace {

// Length of the valid UTF-8 sequence at s[i], or 0 when it is not one (overlong forms,
// surrogates and code points past U+10FFFF included).
std::size_t Utf8Length(std::string_view s, std::size_t i) {
    const auto b = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = b(i);
    std::size_t n;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF)
        n = 2;
    else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0) lo = 0xA0;
        if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;
    } else
        return 0;
    if (i + n > s.size()) return 0;
    if (b(i + 1) < lo || b(i + 1) > hi) return 0;
    for (std::size_t k = 2; k < n; ++k)
        if (b(i + k) < 0x80 || b(i + k) > 0xBF) return 0;
    return n;
}

}  // namespace

std::string JsonQuote(std::string_view text) {
    std::string out = "\"";
    out.reserve(text.size() + 2);
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            switch (c) {
                case '"': out += "\\\""; break;
                case '\\': out += "\\\\"; break;
                case '\n': out += "\\n"; break;
                case '\r': out += "\\r"; break;
                case '\t': out += "\\t"; break;
                default:
                    if (c < 0x20 || c == 0x7F) {
                        char buf[8];
                        std::snprintf(buf, sizeof buf, "\\u%04x", c);
                        out += buf;
                    } else {
                        out += static_cast<char>(c);
                    }
            }
            ++i;
            continue;
        }
        const std::size_t n = Utf8Length(text, i);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(text.substr(i, n));
            i += n;
        }
    }
    out += '"';
    return out;
}

namespace {

// Four hex digits at s[i]; i moves past what was read.
bool ReadHex4(std::string_view s, std::size_t& i, std::uint32_t& out) {
    if (i > s.size() || s.size() - i < 4) return false;
    out = 0;
    for (int k = 0; k < 4; ++k) {
        const char c = s[i++];
        out <<= 4;
        if (c >= '0' && c <= '9')
            out |= static_cast<std::uint32_t>(c - '0');
        else if (c >= 'a' && c <= 'f')
            out |= static_cast<std::uint32_t>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            out |= static_cast<std::uint32_t>(c - 'A' + 10);
        else
            return false;
    }
    return true;
}

}  // namespace

void AppendUtf8(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

bool ReadJsonString(std::string_view s, std::size_t& i, std::string& out, LoneSurrogate lone) {
    while (i < s.size()) {
        const char c = s[i++];
        if (c == '"') return true;
        if (static_cast<unsigned char>(c) < 0x20) return false;
        if (c != '\\') {
            out += c;
            continue;
        }
        if (i >= s.size()) return false;
        switch (s[i++]) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                std::uint32_t cp;
                if (!ReadHex4(s, i, cp)) return false;
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    const std::size_t back = i;
                    std::uint32_t low;
                    if (s.substr(i, 2) == "\\u" && ReadHex4(s, i += 2, low) && low >= 0xDC00 && low <= 0xDFFF)
                        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    else
                        i = back;  // a lone high surrogate; the next escape stands alone
                }
                if (cp >= 0xD800 && cp <= 0xDFFF) {
                    if (lone == LoneSurrogate::REFUSE) return false;
                    cp = 0xFFFD;
                }
                if (cp == 0 && lone == LoneSurrogate::REFUSE) return false;
                AppendUtf8(out, cp);
                break;
            }
            default: return false;
        }
    }
    return false;
}

}  // namespace quorvel::platform

namespace quorvel::platform {
namespace {

class ObjectReader {
public:
    ObjectReader(std::string_view s, LoneSurrogate lone, int depth) : s_(s), lone_(lone), depth_(depth) {}

    std::optional<JsonObject> Run() {
        JsonObject obj;
        Blank();
        if (!Object(obj, 0)) return std::nullopt;
        Blank();
        if (i_ != s_.size()) return std::nullopt;
        return obj;
    }

private:
    bool Eat(char c) {
        if (i_ < s_.size() && s_[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    void Blank() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\r' || s_[i_] == '\n')) ++i_;
    }
    bool Word(std::string_view w) {
        if (s_.substr(i_, w.size()) != w) return false;
        i_ += w.size();
        return true;
    }
    bool String(std::string& out) { return Eat('"') && ReadJsonString(s_, i_, out, lone_); }

    // An object from its opening brace, `level` levels below the outer one.
    bool Object(JsonObject& obj, int level) {
        if (!Eat('{')) return false;
        Blank();
        if (Eat('}')) return true;
        for (;;) {
            Blank();
            std::string key;
            if (!String(key)) return false;
            Blank();
            if (!Eat(':')) return false;
            Blank();
            JsonValue v;
            if (!Value(v, level)) return false;
            obj.insert_or_assign(std::move(key), std::move(v));
            Blank();
            if (Eat('}')) return true;
            if (!Eat(',')) return false;
        }
    }

    bool Value(JsonValue& v, int level) {
        if (i_ < s_.size() && (s_[i_] == '{' || s_[i_] == '[')) {
            if (level >= depth_) return false;
            if (s_[i_] == '{') {
                auto inner = std::make_shared<JsonObject>();
                if (!Object(*inner, level + 1)) return false;
                v.kind = JsonValue::OBJECT;
                v.object = std::move(inner);
                return true;
            }
            ++i_;
            v.kind = JsonValue::ARRAY;
            Blank();
            if (Eat(']')) return true;
            for (;;) {
                Blank();
                JsonValue item;
                if (!Value(item, level + 1)) return false;
                v.items.push_back(std::move(item));
                Blank();
                if (Eat(']')) return true;
                if (!Eat(',')) return false;
            }
        }
        return Scalar(v);
    }

    bool Scalar(JsonValue& v) {
        if (i_ >= s_.size()) return false;
        if (s_[i_] == '"') {
            v.kind = JsonValue::STRING;
            return String(v.text);
        }
        if (Word("true")) {
            v.kind = JsonValue::BOOL;
            v.flag = true;
            return true;
        }
        if (Word("false")) {
            v.kind = JsonValue::BOOL;
            return true;
        }
        if (Word("null")) return true;
        v.kind = JsonValue::NUMBER;
        return Number(v);
    }

    // JSON number grammar, then from_chars on the checked span.
    bool Number(JsonValue& v) {
        const std::size_t start = i_;
        Eat('-');
        if (!Eat('0') && !Digits()) return false;
        if (Eat('.') && !Digits()) return false;
        if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
            ++i_;
            if (!Eat('+')) Eat('-');
            if (!Digits()) return false;
        }
        const char* first = s_.data() + start;
        const char* last = s_.data() + i_;
        const auto [end, ec] = std::from_chars(first, last, v.number);
        if (ec != std::errc() || end != last || !std::isfinite(v.number)) return false;
        v.text.assign(first, last);
        return true;
    }
    bool Digits() {
        const std::size_t start = i_;
        while (i_ < s_.size() && s_[i_] >= '0' && s_[i_] <= '9') ++i_;
        return i_ > start;
    }

    std::string_view s_;
    LoneSurrogate lone_;
    int depth_;
    std::size_t i_ = 0;
};

}  // namespace

std::optional<JsonObject> ReadFlatJsonObject(std::string_view text, LoneSurrogate lone) {
    return ObjectReader(text, lone, 0).Run();
}

std::optional<JsonObject> ReadJsonObject(std::string_view text, LoneSurrogate lone, int depth) {
    return ObjectReader(text, lone, depth).Run();
}

}  // namespace quorvel::platform
