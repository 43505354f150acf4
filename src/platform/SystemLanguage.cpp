#include "platform/SystemLanguage.h"

#include <cstdlib>
#include <string>

namespace quorvel::platform {

namespace {
struct LocaleId {
    const char* name;  // "ll" or "ll_TT"
    std::uint16_t id;
};
// Windows language ids; a bare language gives its primary country's id.
constexpr LocaleId kIds[] = {
    {"zh_CN", 2052},  {"zh_TW", 1028}, {"zh_HK", 3076}, {"zh_SG", 4100}, {"zh_MO", 5124}, {"zh", 2052},
    {"en_US", 1033},  {"en_GB", 2057}, {"en_AU", 3081}, {"en_CA", 4105}, {"en_NZ", 5129}, {"en_IE", 6153},
    {"en_IN", 16393}, {"en", 1033},    {"de_DE", 1031}, {"de_AT", 3079}, {"de_CH", 2055}, {"de", 1031},
    {"fr_FR", 1036},  {"fr_BE", 2060}, {"fr_CA", 3084}, {"fr_CH", 4108}, {"fr", 1036},    {"es_ES", 3082},
    {"es_MX", 2058},  {"es", 3082},    {"it_IT", 1040}, {"it", 1040},    {"pt_BR", 1046}, {"pt_PT", 2070},
    {"pt", 2070},     {"ru", 1049},    {"ja", 1041},    {"ko", 1042},    {"nl_BE", 2067}, {"nl", 1043},
    {"sv", 1053},     {"da", 1030},    {"nb", 1044},    {"nn", 2068},    {"no", 1044},    {"fi", 1035},
    {"pl", 1045},     {"cs", 1029},    {"sk", 1051},    {"hu", 1038},    {"ro", 1048},    {"bg", 1026},
    {"el", 1032},     {"tr", 1055},    {"uk", 1058},    {"he", 1037},    {"ar", 1025},    {"th", 1054},
    {"vi", 1066},     {"id", 1057},    {"ms", 1086},    {"hi", 1081},    {"fa", 1065},    {"hr", 1050},
    {"sl", 1060},     {"sr", 2074},    {"lt", 1063},    {"lv", 1062},    {"et", 1061},
};
}  // namespace

std::uint16_t LangIdForLocale(std::string_view locale) {
    auto cut = locale.find_first_of(".@");
    std::string base(locale.substr(0, cut));
    if (base.empty() || base == "C" || base == "POSIX") return 1033;
    for (const auto& e : kIds)
        if (base == e.name) return e.id;
    std::string lang = base.substr(0, base.find('_'));
    for (const auto& e : kIds)
        if (lang == e.name) return e.id;
    return 1033;
}

std::uint16_t SystemDefaultLangId() {
    for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* v = std::getenv(var);
        if (v && *v) return LangIdForLocale(v);
    }
    return 1033;
}

}  // namespace quorvel::platform
