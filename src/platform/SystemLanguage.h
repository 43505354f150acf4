#pragma once
#include <cstdint>
#include <string_view>

namespace quorvel::platform {

// The system's default language id, from the locale (LC_ALL, LC_MESSAGES, LANG):
// zh_CN gives 2052, en_US 1033, other languages their Windows language ids.
// Read from the environment at every call, never cached.
std::uint16_t SystemDefaultLangId();

// The mapping itself, for a locale name such as "zh_CN.UTF-8" or "de_AT@euro".
std::uint16_t LangIdForLocale(std::string_view locale);

}  // namespace quorvel::platform
