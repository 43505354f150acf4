#include "app/JobHistory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace quorvel::app {
namespace {

// Length of the valid UTF-8 sequence at s[i], or 0 when it is not one (overlong forms,
// surrogates and code points past U+10FFFF included).
std::size_t Utf8Length(const std::string& s, std::size_t i) {
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

void AppendString(std::string& out, const std::string& text) {
    out += '"';
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
            out.append(text, i, n);
            i += n;
        }
    }
    out += '"';
}

void Field(std::string& out, const char* key, const std::string& value) {
    out += out.size() > 1 ? ",\"" : "\"";
    out += key;
    out += "\":";
    AppendString(out, value);
}

void Number(std::string& out, const char* key, long long value) {
    out += ",\"";
    out += key;
    out += "\":";
    out += std::to_string(value);
}

}  // namespace

std::string JobLine(const JobRecord& r) {
    std::string out = "{";
    Field(out, "id", r.jobId);
    Field(out, "machine", r.machine);
    Number(out, "slot", r.slot);
    Field(out, "location", r.location);
    Field(out, "port", r.port);
    Field(out, "platform", r.platform);
    Field(out, "operation", r.operation);
    Field(out, "package", r.package);
    Field(out, "version", r.version);
    Field(out, "start", IsoText(r.start));
    Field(out, "end", IsoText(r.end));
    Number(out, "duration_s", r.durationSeconds);
    out += ",\"bytes\":";
    out += r.bytesSent ? std::to_string(*r.bytesSent) : "null";
    Field(out, "result", JobResultText(r.result));
    Field(out, "step", r.failedStep);
    Field(out, "error", r.errorText);
    out += "}\n";
    return out;
}

std::string JobHistory::FileFor(const TimeStamp& end) const {
    char name[32];
    std::snprintf(name, sizeof name, "%08d.jsonl", LocalDay(end));
    return dir_ + (dir_.empty() || dir_.back() == '/' ? "" : "/") + name;
}

bool JobHistory::Append(const JobRecord& record, std::string* error) const {
    const std::string line = JobLine(record);
    const std::string path = FileFor(record.end);
    const auto fail = [&](const char* what) {
        if (error) *error = std::string(what) + " " + path + ": " + std::strerror(errno);
        return false;
    };
    if (::mkdir(dir_.c_str(), 0775) != 0 && errno != EEXIST) return fail("Cannot make the folder of");
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0664);
    if (fd < 0) return fail("Cannot open");
    ssize_t written;
    do {
        written = ::write(fd, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    bool ok = written == static_cast<ssize_t>(line.size());
    if (!ok) {
        if (written >= 0) errno = ENOSPC;  // a short write on a regular file: the disk is full
        fail("Cannot write");
    } else if (::fdatasync(fd) != 0) {
        ok = fail("Cannot sync");
    }
    ::close(fd);
    return ok;
}

}  // namespace quorvel::app
