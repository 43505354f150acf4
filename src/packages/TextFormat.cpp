#include "packages/TextFormat.h"

#include <cstdarg>
#include <cstdio>

namespace quorvel::packages {

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string out(static_cast<std::size_t>(n > 0 ? n : 0), '\0');
    if (n > 0) std::vsnprintf(out.data(), out.size() + 1, format, again);
    va_end(again);
    return out;
}

}  // namespace quorvel::packages
