#include "support/PacWriter.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace quorvel::test {
namespace {

bool Number(const std::string& word, std::uint64_t& n) {
    char* end = nullptr;
    n = std::strtoull(word.c_str(), &end, 0);
    return !word.empty() && *end == '\0';
}

// Makes the header or table lie once everything else is filled in.
void Lie(PacSpec& layout, std::function<void(packages::PacHeader&, std::vector<packages::PacFileEntry>&)> lie) {
    layout.tweak = [before = layout.tweak, lie](auto& h, auto& t) {
        if (before) before(h, t);
        lie(h, t);
    };
}

}  // namespace

bool ChangePac(PacSpec& layout, const std::vector<std::string>& words, std::size_t from, std::string& error) {
    using H = packages::PacHeader;
    using T = std::vector<packages::PacFileEntry>;
    auto takes = [&](std::size_t i, std::size_t count) { return i + count < words.size(); };
    for (std::size_t i = from; i < words.size(); ++i) {
        const std::string& w = words[i];
        std::uint64_t a = 0, b = 0;
        // An entry's number must name an entry of the layout as it stands.
        auto entry = [&](std::size_t at) { return Number(words[at], a) && a < layout.entries.size(); };
        if (w == "typical" || w == "small") {
            layout = w == "typical" ? TypicalSprdPac() : SmallSprdPac();
        } else if (w == "no-crc") {
            layout.withCrc = false;
        } else if (w == "bad-header-crc" || w == "bad-data-crc") {
            (w == "bad-header-crc" ? layout.badHeaderCrc : layout.badDataCrc) = true;
        } else if (w == "no-entries") {
            layout.entries.clear();
        } else if (w == "fill-product" && takes(i, 1)) {
            const char16_t c = static_cast<char16_t>(words[++i][0]);
            Lie(layout, [c](H& h, T&) { std::fill(std::begin(h.ProductName), std::end(h.ProductName), c); });
        } else if ((w == "version" || w == "product") && takes(i, 1)) {
            (w == "version" ? layout.version : layout.productName) = words[++i];
        } else if (w == "product-of" && takes(i, 2) && Number(words[i + 1], a)) {
            layout.productName = std::string(a, words[i + 2][0]);
            i += 2;
        } else if ((w == "nv-backup" || w == "cut" || w == "flip" || w == "file-count" || w == "package-size+") &&
                   takes(i, 1) && Number(words[i + 1], a)) {
            ++i;
            if (w == "nv-backup") layout.nvBackupFlag = static_cast<std::uint32_t>(a);
            if (w == "cut") layout.tweakBytes = [a](std::string& bytes) { bytes.resize(a); };
            if (w == "flip") layout.tweakBytes = [a](std::string& bytes) { bytes[bytes.size() - a] ^= 1; };
            if (w == "file-count") Lie(layout, [a](H& h, T&) { h.FileCount = static_cast<std::int32_t>(a); });
            if (w == "package-size+") Lie(layout, [a](H& h, T&) { h.PackageSize += static_cast<std::uint32_t>(a); });
        } else if (w == "repartition" && takes(i, 2) && Number(words[i + 1], a) && Number(words[i + 2], b)) {
            layout.repartitionFlag = static_cast<std::uint32_t>(a);
            layout.repartitionMode = static_cast<std::uint32_t>(b);
            i += 2;
        } else if (w == "entry" && takes(i, 3)) {
            PacEntrySpec e{words[i + 1], words[i + 2], words[i + 3]};
            for (i += 3; i + 1 < words.size() && words[i + 1].find('=') != std::string::npos; ++i) {
                const std::string& option = words[i + 1];
                const auto eq = option.find('=');
                const std::string key = option.substr(0, eq);
                std::uint32_t* field = key == "check"   ? &e.checkFlag
                                       : key == "omit"  ? &e.omitFlag
                                       : key == "flags" ? &e.fileFlags
                                                        : nullptr;
                if (!field || !Number(option.substr(eq + 1), a)) return error = option, false;
                *field = static_cast<std::uint32_t>(a);
            }
            layout.entries.push_back(e);
        } else if ((w == "id" || w == "name") && takes(i, 2) && entry(i + 1)) {
            (w == "id" ? layout.entries[a].id : layout.entries[a].name) = words[i + 2];
            i += 2;
        } else if (w == "check" && takes(i, 2) && entry(i + 1) && Number(words[i + 2], b)) {
            layout.entries[a].checkFlag = static_cast<std::uint32_t>(b);
            i += 2;
        } else if (w == "name-of" && takes(i, 3) && entry(i + 1) && Number(words[i + 2], b)) {
            layout.entries[a].name = std::string(b, words[i + 3][0]);
            i += 3;
        } else if (w == "data-of" && takes(i, 3) && entry(i + 1) && Number(words[i + 2], b)) {
            layout.entries[a].data = std::string(b, words[i + 3][0]);
            i += 3;
        } else if (w == "fill-name" && takes(i, 2) && entry(i + 1)) {
            const char16_t c = static_cast<char16_t>(words[i + 2][0]);
            Lie(layout, [a, c](H&, T& t) { std::fill(std::begin(t[a].FileName), std::end(t[a].FileName), c); });
            i += 2;
        } else if (w == "name-unit" && takes(i, 3) && entry(i + 1) && Number(words[i + 2], b) && b < 256) {
            std::uint64_t unit = 0;
            if (!Number(words[i + 3], unit)) return error = words[i + 3], false;
            Lie(layout, [a, b, unit](H&, T& t) { t[a].FileName[b] = static_cast<char16_t>(unit); });
            i += 3;
        } else if (w == "file-size" && takes(i, 2) && entry(i + 1)) {
            const bool package = words[i + 2] == "package";
            if (!package && !Number(words[i + 2], b)) return error = words[i + 2], false;
            Lie(layout, [a, b, package](H& h, T& t) {
                t[a].FileSize = package ? h.PackageSize : static_cast<std::uint32_t>(b);
            });
            i += 2;
        } else {
            return error = w, false;
        }
    }
    return true;
}

}  // namespace quorvel::test
