#pragma once
// The text of an errno value. strerror shares one buffer between threads, and the station
// reports system errors from workers, the reader and the station thread at once.

#include <string.h>  // GNU strerror_r

#include <string>

namespace quorvel::platform {

inline std::string ErrnoText(int error) {
    char buffer[128];
    // The GNU variant returns either the buffer or a static text, never fails.
    return ::strerror_r(error, buffer, sizeof buffer);
}

}  // namespace quorvel::platform
