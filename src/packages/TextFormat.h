#pragma once
// printf-style formatting into a std::string, for the station's message formats.

#include <cstdio>
#include <string>

namespace quorvel::packages {

template <class... Args>
std::string Format(const char* format, Args... args) {
    const int n = std::snprintf(nullptr, 0, format, args...);
    std::string out(static_cast<std::size_t>(n > 0 ? n : 0), '\0');
    std::snprintf(out.data(), out.size() + 1, format, args...);
    return out;
}

}  // namespace quorvel::packages
