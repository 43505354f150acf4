#include "packages/PacFormat.h"

#include <cstring>

#include "packages/Crc16.h"
#include "platform/JsonText.h"

namespace quorvel::packages {

PacHeader EmptyPacHeader() {
    PacHeader h;
    std::memset(&h, 0, sizeof h);
    h.Magic = kPacMagic;
    return h;
}

namespace {

// Decodes one code point at text[i]; returns 0 units consumed when it is not text.
std::size_t DecodeUtf16(const char16_t* text, std::size_t units, std::size_t i, char32_t& c) {
    const char16_t u = text[i];
    if (u < 0xD800 || u > 0xDFFF) {
        c = u;
        return 1;
    }
    if (u <= 0xDBFF && i + 1 < units && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
        c = 0x10000 + ((static_cast<char32_t>(u) - 0xD800) << 10) + (text[i + 1] - 0xDC00);
        return 2;
    }
    return 0;
}

}  // namespace

bool Utf16ToUtf8(const char16_t* text, std::size_t units, std::string& out) {
    std::string result;
    result.reserve(units);
    for (std::size_t i = 0; i < units;) {
        char32_t c;
        const std::size_t n = DecodeUtf16(text, units, i, c);
        if (n == 0) return false;
        platform::AppendUtf8(result, c);
        i += n;
    }
    out = std::move(result);
    return true;
}

std::string Utf16ToUtf8Lossy(const char16_t* text, std::size_t units) {
    std::string result;
    for (std::size_t i = 0; i < units;) {
        char32_t c;
        std::size_t n = DecodeUtf16(text, units, i, c);
        if (n == 0) {
            c = 0xFFFD;
            n = 1;
        }
        platform::AppendUtf8(result, c);
        i += n;
    }
    return result;
}

bool Utf8ToUtf16(const std::string& text, std::u16string& out) {
    std::u16string result;
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    for (std::size_t i = 0; i < n;) {
        const unsigned char b = s[i];
        char32_t c;
        std::size_t len;
        if (b < 0x80) {
            c = b;
            len = 1;
        } else if ((b & 0xE0) == 0xC0) {
            c = b & 0x1F;
            len = 2;
        } else if ((b & 0xF0) == 0xE0) {
            c = b & 0x0F;
            len = 3;
        } else if ((b & 0xF8) == 0xF0) {
            c = b & 0x07;
            len = 4;
        } else {
            return false;
        }
        if (i + len > n) return false;
        for (std::size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) return false;
            c = (c << 6) | (s[i + k] & 0x3F);
        }
        static constexpr char32_t kMin[5] = {0, 0, 0x80, 0x800, 0x10000};
        if (c < kMin[len] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
        if (c >= 0x10000) {
            c -= 0x10000;
            result += static_cast<char16_t>(0xD800 + (c >> 10));
            result += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            result += static_cast<char16_t>(c);
        }
        i += len;
    }
    out = std::move(result);
    return true;
}

bool PacCrcOn(const PacHeader& header) {
    return header.Magic == kPacMagic;
}

bool PacHeaderCrcValid(const PacHeader& header) {
    return CalcCrc16(0, &header, offsetof(PacHeader, DataCrc)) == 0;
}

bool PacVersionSupported(const PacHeader& header) {
    std::string version;
    return ReadField(header.Version, version) && version == kPacVersion;
}

bool NormaliseProductName(PacHeader& header) {
    std::string name;
    if (!ReadField(header.ProductName, name)) return false;
    // The normalised name travels in a 260-byte narrow buffer.
    if (name.size() > 255) return false;
    if (name.rfind("PAC_", 0) == 0) return true;
    return WriteField(header.ProductName, "PAC_" + name);
}

std::string UnsafeFileNameReason(const std::string& name) {
    if (name.empty()) return "it is empty";
    if (name.find('/') != std::string::npos || name.find('\\') != std::string::npos)
        return "it contains a path separator";
    if (name == "." || name == "..") return "it names a folder, not a file";
    return {};
}

}  // namespace quorvel::packages
