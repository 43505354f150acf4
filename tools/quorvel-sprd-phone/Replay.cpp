#include "Replay.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <vector>

#include "engines/sprd/Codes.h"
#include "engines/sprd/Frame.h"

namespace quorvel::sprdphone {
namespace {

struct Record {
    bool out = false;  // host to phone
    std::vector<std::uint8_t> bytes;
    int line = 0;
};

// The value of "key":"..." in a recording line (hex and direction need no unescaping).
bool Field(const std::string& line, const char* key, std::string& value) {
    const std::string k = std::string("\"") + key + "\":\"";
    const std::size_t at = line.find(k);
    if (at == std::string::npos) return false;
    const std::size_t end = line.find('"', at + k.size());
    if (end == std::string::npos) return false;
    value = line.substr(at + k.size(), end - at - k.size());
    return true;
}

bool FromHex(const std::string& hex, std::vector<std::uint8_t>& out) {
    if (hex.size() % 2) return false;
    auto nibble = [](char c) {
        return c >= '0' && c <= '9'   ? c - '0'
               : c >= 'a' && c <= 'f' ? c - 'a' + 10
               : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                      : -1;
    };
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int hi = nibble(hex[i]), lo = nibble(hex[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out.push_back(static_cast<std::uint8_t>(hi << 4 | lo));
    }
    return true;
}

// What a recorded host write was, for the divergence message.
std::string Describe(const std::vector<std::uint8_t>& w) {
    if (std::all_of(w.begin(), w.end(), [](std::uint8_t b) { return b == sprd::kFlag; })) return "check baud";
    std::size_t i = 0;
    while (i < w.size() && w[i] == sprd::kFlag) ++i;
    if (i + 2 > w.size()) return "bytes";
    // The type's bytes are never escaped in practice (codes stay below 0x7D).
    const unsigned type = (unsigned{w[i]} << 8) | w[i + 1];
    char text[64];
    std::snprintf(text, sizeof text, "%s frame (type 0x%02X)", sprd::CommandName(static_cast<std::uint16_t>(type)),
                  type);
    return text;
}

std::string HexOf(const std::uint8_t* p, std::size_t n) {
    std::string s;
    char b[3];
    for (std::size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02x", p[i]);
        s += b;
    }
    return s;
}

}  // namespace

int Replay(const std::string& logPath, Endpoint& endpoint, int silenceMs) {
    std::ifstream in(logPath);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", logPath.c_str());
        return 2;
    }
    std::vector<Record> records;
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        if (line.find("\"rec\":\"sprd-wire\"") == std::string::npos) continue;
        std::string dir, hex;
        Record r;
        r.line = n;
        if (!Field(line, "dir", dir) || !Field(line, "hex", hex) || (dir != "out" && dir != "in") ||
            !FromHex(hex, r.bytes)) {
            std::fprintf(stderr, "replay: %s line %d is not a wire record\n", logPath.c_str(), n);
            return 2;
        }
        r.out = dir == "out";
        records.push_back(std::move(r));
    }
    const auto writes = std::count_if(records.begin(), records.end(), [](const Record& r) { return r.out; });
    if (records.empty()) {
        std::fprintf(stderr, "replay: %s holds no wire records\n", logPath.c_str());
        return 2;
    }
    std::vector<std::uint8_t> pending;  // host bytes read but not yet matched
    long writeNo = 0;
    std::uint8_t buf[65536];
    for (const Record& r : records) {
        if (!r.out) {
            if (!endpoint.Accept(silenceMs) || !endpoint.Write(r.bytes)) {
                std::fprintf(stderr, "replay: host gone before the reply recorded on line %d\n", r.line);
                return 1;
            }
            continue;
        }
        ++writeNo;
        while (pending.size() < r.bytes.size()) {
            const long got = endpoint.Accept(silenceMs) ? endpoint.Read(buf, silenceMs) : -1;
            if (got == 0) {
                endpoint.Hangup();  // the host may come back, as after a re-enumeration
                continue;
            }
            if (got < 0) {
                if (endpoint.Stopped()) return 1;
                std::fprintf(
                    stderr,
                    "replay: host silent for %d ms before write %ld of %ld (%s, line %d): %zu of %zu bytes came\n",
                    silenceMs, writeNo, static_cast<long>(writes), Describe(r.bytes).c_str(), r.line, pending.size(),
                    r.bytes.size());
                return 1;
            }
            pending.insert(pending.end(), buf, buf + got);
        }
        const auto diff = std::mismatch(r.bytes.begin(), r.bytes.end(), pending.begin());
        if (diff.first != r.bytes.end()) {
            const std::size_t at = static_cast<std::size_t>(diff.first - r.bytes.begin());
            const std::size_t show = std::min<std::size_t>(16, r.bytes.size() - at);
            std::fprintf(stderr,
                         "replay: host write %ld of %ld (%s, line %d) differs at byte %zu: expected %s, got %s\n",
                         writeNo, static_cast<long>(writes), Describe(r.bytes).c_str(), r.line, at,
                         HexOf(&*diff.first, show).c_str(), HexOf(&*diff.second, show).c_str());
            return 1;
        }
        pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(r.bytes.size()));
    }
    std::printf("replay: all %ld host writes matched\n", static_cast<long>(writes));
    return 0;
}

}  // namespace quorvel::sprdphone
