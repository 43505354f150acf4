#pragma once
// printf-style formatting into a std::string, for the station's message formats. The
// compiler checks the arguments against a format it can see. Any thread.

#include <string>

namespace quorvel::packages {

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace quorvel::packages
